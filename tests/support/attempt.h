// Without(kind, operation): what becomes of an operation that runs out of memory.
#ifndef SUPPORT_ATTEMPT_H
#define SUPPORT_ATTEMPT_H

#include <new>
#include <string>

#include <Windows/MemoryException.h>

#include "support/interpose.h"

struct Attempt {
    std::string outcome; // "done", "memory exception", "bad_alloc"
    bool failed;         // an allocation did fail
    int balance;         // blocks that the operation has allocated and not released
};

// Runs an operation whose n-th allocation of a kind fails.
template <class Operation> Attempt Without(FailAllocation::Kind kind, Operation operation, int n = 1) {
    AllocationCounter counter;
    FailAllocation fail(n, kind);
    const char* outcome = "done";
    try {
        operation();
    } catch (CMemoryException* e) {
        outcome = e == &g_oMemoryException ? "memory exception" : "a memory exception of its own";
    } catch (const std::bad_alloc&) {
        outcome = "bad_alloc";
    }
    fail.Stop();
    const int balance = counter.Balance();
    return {outcome, fail.Happened(), balance};
}

#endif
