// What makes headers for strings shares.
#ifndef WINDOWS_INTERNAL_STRINGHEADER_H
#define WINDOWS_INTERNAL_STRINGHEADER_H

#include <string.h>

#include <utility>

#include <Windows/XString.h>

namespace windows {

// Owns a header that no string has taken over yet, so that nothing is left behind when memory runs out.
class NewHeader {
public:
    NewHeader() : m_header(new XStringData) {}
    ~NewHeader() {
        if (m_header)
            m_header->Release();
    }

    NewHeader(const NewHeader&) = delete;
    NewHeader& operator=(const NewHeader&) = delete;

    XStringData* operator->() { return m_header; }
    XStringData& operator*() { return *m_header; }

    XStringData* HandOver() { return std::exchange(m_header, nullptr); }

private:
    XStringData* m_header;
};

// memcpy that may be given NULL for no bytes.
inline void CopyText(char* to, const char* from, unsigned int count) {
    if (count > 0)
        memcpy(to, from, count);
}

} // namespace windows

#endif
