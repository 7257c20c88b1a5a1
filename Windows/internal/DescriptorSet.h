// A set of descriptors to wait for with select(), without the limit of 1,024 that fd_set has.
//
// The set grows with the highest descriptor. It never throws: without memory for a descriptor the set is
// marked as incomplete, and Select() fails with ENOMEM as select() itself may.
//
// Thread safety: an object belongs to one thread.
#ifndef WINDOWS_INTERNAL_DESCRIPTORSET_H
#define WINDOWS_INTERNAL_DESCRIPTORSET_H

#include <sys/select.h>

#include <cstddef>

namespace windows {

class DescriptorSet {
public:
    DescriptorSet() = default;
    ~DescriptorSet();

    DescriptorSet(const DescriptorSet&) = delete;
    DescriptorSet& operator=(const DescriptorSet& source);

    // A negative descriptor is none and is not added.
    void Add(int descriptor);
    void Remove(int descriptor);
    bool Contains(int descriptor) const;

    // Waits until one of the descriptors below count can be read and keeps those; timeout as for select().
    // Of the others the kernel drops some (those in the last word that it reads), so do not ask for them.
    int Select(int count, timeval* timeout);

private:
    using Word = unsigned long;
    static constexpr std::size_t kBitsPerWord = 8 * sizeof(Word);
    static constexpr std::size_t kInlineWords = FD_SETSIZE / kBitsPerWord;

    bool Reserve(std::size_t words);

    Word m_inlineWords[kInlineWords] = {};
    Word* m_words = m_inlineWords;
    std::size_t m_wordCount = kInlineWords;
    bool m_incomplete = false;
};

} // namespace windows

#endif
