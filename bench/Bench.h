// What the benchmarks share.
//
// A benchmark is an operation, written once as a template over its columns: Library, Floor and the peers that
// the build found. The floor is written by hand: it makes the calls of the C library, the kernel and the host
// that the library has to make for the same effect, in the same order, and nothing else. What the library
// exports is called there as well (FLOOR_CALL), and not made for its callers, as nothing in a library is:
// inlined into a loop, pthread_self would be called once and not each time, and a copy for a caller's
// constants would know how long its texts are. Each benchmark checks its results, so that all columns do the
// same work.
#ifndef BENCH_BENCH_H
#define BENCH_BENCH_H

#include <stdlib.h>

#include <benchmark/benchmark.h>

#if defined(__GNUC__) && !defined(__clang__)
#define FLOOR_CALL __attribute__((noipa))
#else
#define FLOOR_CALL __attribute__((noinline))
#endif

// Ends a benchmark whose result is not the expected one.
inline bool Agrees(benchmark::State& state, bool holds) {
    if (!holds)
        state.SkipWithError("wrong result");
    return holds;
}

// So many turns of the loop, where somebody counts instructions and says how many.
inline void Turns(benchmark::internal::Benchmark* benchmark) {
    if (const char* turns = getenv("WINDOWS_BENCH_TURNS"))
        benchmark->Iterations(atoi(turns));
}

// What only builds with a peer: BENCH_IF_QT(BENCHMARK_TEMPLATE(Operation, QtCore);)
#ifdef BENCH_QT
#define BENCH_IF_QT(...) __VA_ARGS__
#else
#define BENCH_IF_QT(...)
#endif
#ifdef BENCH_GLIB
#define BENCH_IF_GLIB(...) __VA_ARGS__
#else
#define BENCH_IF_GLIB(...)
#endif
#ifdef BENCH_ASIO
#define BENCH_IF_ASIO(...) __VA_ARGS__
#else
#define BENCH_IF_ASIO(...)
#endif
#ifdef BENCH_ZEROMQ
#define BENCH_IF_ZEROMQ(...) __VA_ARGS__
#else
#define BENCH_IF_ZEROMQ(...)
#endif

#endif
