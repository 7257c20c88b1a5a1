// The heap blocks that the library under test has allocated and nobody has released, whoever releases them.
//
// Sanitized builds track none: AddressSanitizer looks for leaks itself.
//
// Thread safety: any thread at any time, the functions for interpose.cpp before main() too.
#ifndef SUPPORT_BLOCKS_H
#define SUPPORT_BLOCKS_H

#include <stdint.h>

#include <set>
#include <string>

class LibraryBlocks {
public:
    // Begins to track.
    static void Install();

    // The addresses of those there are.
    static std::set<uintptr_t> All();

    // What allocated one: "CSocket::Send+0x1c".
    static std::string Origin(uintptr_t block);

    // For interpose.cpp: a block that this caller has got, and one that goes. Null pointers are none.
    static void Born(const void* block, const void* caller);
    static void Gone(const void* block);
};

#endif
