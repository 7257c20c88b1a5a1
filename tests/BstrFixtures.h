// What the tests of BSTR and of VARIANT share.
#ifndef TESTS_BSTRFIXTURES_H
#define TESTS_BSTRFIXTURES_H

#include "support/interpose.h"
#include "support/recording_host.h"
#include "support/text.h"

// Counts the blocks of the library alone: nothing is recorded meanwhile.
class LibraryAllocations {
public:
    LibraryAllocations() { Recorder::Pause(); }
    ~LibraryAllocations() { Recorder::Resume(); }

    AllocationCounter counter;
};

// What freeing something that is no BSTR posts.
inline ExpectedEvent NonBstrEvent(const void* pointer) {
    return {11, 1, Text("SysFreeString called with a NON bstr!! %p", pointer)};
}

#endif
