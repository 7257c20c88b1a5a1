#include <Windows/internal/DescriptorSet.h>

#include <errno.h>

#include <algorithm>
#include <new>

namespace windows {

DescriptorSet::~DescriptorSet() {
    if (m_words != m_inlineWords)
        delete[] m_words;
}

DescriptorSet& DescriptorSet::operator=(const DescriptorSet& source) {
    if (this == &source)
        return *this;
    m_incomplete = source.m_incomplete || !Reserve(source.m_wordCount);
    const std::size_t common = std::min(m_wordCount, source.m_wordCount);
    std::copy_n(source.m_words, common, m_words);
    std::fill(m_words + common, m_words + m_wordCount, Word{0});
    return *this;
}

void DescriptorSet::Add(int descriptor) {
    if (descriptor < 0)
        return;
    const auto bit = static_cast<std::size_t>(descriptor);
    if (Reserve(bit / kBitsPerWord + 1))
        m_words[bit / kBitsPerWord] |= Word{1} << (bit % kBitsPerWord);
    else
        m_incomplete = true;
}

void DescriptorSet::Remove(int descriptor) {
    if (Contains(descriptor)) {
        const auto bit = static_cast<std::size_t>(descriptor);
        m_words[bit / kBitsPerWord] &= ~(Word{1} << (bit % kBitsPerWord));
    }
}

bool DescriptorSet::Contains(int descriptor) const {
    if (descriptor < 0)
        return false;
    const auto bit = static_cast<std::size_t>(descriptor);
    return bit / kBitsPerWord < m_wordCount &&
           (m_words[bit / kBitsPerWord] >> (bit % kBitsPerWord) & Word{1}) != 0;
}

int DescriptorSet::Select(int count, timeval* timeout) {
    // The kernel reads and writes count bits in whole words, whatever size fd_set has.
    if (m_incomplete || !Reserve((static_cast<std::size_t>(count) + kBitsPerWord - 1) / kBitsPerWord)) {
        errno = ENOMEM;
        return -1;
    }
    return select(count, reinterpret_cast<fd_set*>(m_words), nullptr, nullptr, timeout);
}

bool DescriptorSet::Reserve(std::size_t words) {
    if (words <= m_wordCount)
        return true;
    const std::size_t size = std::max(words, 2 * m_wordCount);
    Word* grown = new (std::nothrow) Word[size]();
    if (!grown)
        return false;
    std::copy_n(m_words, m_wordCount, grown);
    if (m_words != m_inlineWords)
        delete[] m_words;
    m_words = grown;
    m_wordCount = size;
    return true;
}

} // namespace windows
