// How much room a string array makes for itself.
#ifndef WINDOWS_INTERNAL_CAPACITY_H
#define WINDOWS_INTERNAL_CAPACITY_H

#include <Windows/internal/Assertion.h>

namespace windows {

// What an array without a step of its own grows by, in elements.
inline int DefaultGrowth(int size) { return size > 8191 ? size >> 3 : 1024; }

// The new room of an array that has room for nMaxSize elements and needs some for nNewSize, which is more. It
// grows by a step at least.
inline int GrownCapacity(int nNewSize, int nMaxSize, int step) {
    // Not signed, so that a step that exceeds an int comes out negative: less than what is needed.
    const auto stepped =
        static_cast<int>(static_cast<unsigned int>(nMaxSize) + static_cast<unsigned int>(step));
    const int nNewMax = nNewSize < stepped ? stepped : nNewSize;
    Require(nNewMax >= nMaxSize, "nNewMax >= m_nMaxSize",
            {"Windows/StringArray", 142, "void CStringArray::SetSize(int, int)"});
    return nNewMax;
}

} // namespace windows

#endif
