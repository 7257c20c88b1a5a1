// BSTR and VARIANT, and an event of the log that the host does not let pass.
#include <pthread.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>

#include <Windows/bstr.h>
#include <Windows/variant.h>
#include <host/Logger.h>

#include "Bench.h"
#include "FloorLock.h"
#ifdef BENCH_QT
#include <QString>
#include <QVariant>
#endif
#ifdef BENCH_GLIB
#include <glib.h>
#endif

namespace {

pthread_mutex_t g_lock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

const char TEXT[] = "forty-three characters, which is one line !";

struct Library {
    static void MakeAndFree(const char* text) {
        BSTR bstr = SysAllocString(text);
        benchmark::DoNotOptimize(bstr);
        SysFreeString(bstr);
    }
    static int ThroughText(int number) {
        VARIANT value;
        VariantInit(&value);
        V_VT(&value) = VT_I4;
        V_I4(&value) = number;
        VariantChangeType(&value, &value, 0, VT_BSTR);
        VariantChangeType(&value, &value, 0, VT_I4);
        return V_I4(&value);
    }
    static void FilteredEvent() {
        CLogger::PostLogEventF(LogTypeTraffic, LogSeverityTrace, "on %d: %d bytes", 4, 12);
    }
};

// A block with signature and length in front, made and freed under a recursive lock.
struct Floor {
    FLOOR_CALL static char* Make(const char* text) {
        FloorLock(g_lock);
        const size_t length = strlen(text);
        char* block = static_cast<char*>(malloc(8 + length + 1));
        const uint32_t header[] = {0xCDEADBEE, static_cast<uint32_t>(length)};
        memcpy(block, header, 8);
        memcpy(block + 8, text, length + 1);
        FloorUnlock(g_lock);
        return block + 8;
    }
    FLOOR_CALL static void Free(char* bstr) {
        FloorLock(g_lock);
        uint32_t signature;
        memcpy(&signature, bstr - 8, 4);
        if (signature == 0xCDEADBEE) {
            memset(bstr - 8, 0, 4);
            benchmark::DoNotOptimize(bstr);
            free(bstr - 8);
        }
        FloorUnlock(g_lock);
    }
    static void MakeAndFree(const char* text) {
        char* bstr = Make(text);
        benchmark::DoNotOptimize(bstr);
        Free(bstr);
    }
    static int ThroughText(int number) {
        char digits[256];
        snprintf(digits, sizeof digits, "%d", number);
        char* text = Make(digits);
        const int back = static_cast<int>(strtol(text, nullptr, 10));
        Free(text);
        return back;
    }
    static void Nothing(int, int, const char*, ...);
    static void FilteredEvent() {
        static void (*volatile function)(int, int, const char*, ...) = Nothing;
        function(12, 9, "on %d: %d bytes", 4, 12);
    }
};
__attribute__((noinline)) void Floor::Nothing(int, int, const char*, ...) { __asm__ volatile(""); }

struct Std {
    static void MakeAndFree(const char* text) {
        std::string copy(text);
        benchmark::DoNotOptimize(copy);
    }
    static int ThroughText(int number) { return std::stoi(std::to_string(number)); }
};

#ifdef BENCH_QT
struct QtCore {
    static void MakeAndFree(const char* text) {
        QString copy = QString::fromUtf8(text);
        benchmark::DoNotOptimize(copy);
    }
    static int ThroughText(int number) {
        QVariant value(number);
        value.convert(QMetaType::QString);
        value.convert(QMetaType::Int);
        return value.toInt();
    }
};
#endif

#ifdef BENCH_GLIB
struct Glib {
    static void MakeAndFree(const char* text) {
        char* copy = g_strdup(text);
        benchmark::DoNotOptimize(copy);
        g_free(copy);
    }
    static int ThroughText(int number) {
        char* text = g_strdup_printf("%d", number);
        const int back = static_cast<int>(g_ascii_strtoll(text, nullptr, 10));
        g_free(text);
        return back;
    }
};
#endif

template <typename Column> void MakeAndFreeBstr(benchmark::State& state) {
    const char* text = TEXT;
    for (auto _ : state) {
        benchmark::DoNotOptimize(text);
        Column::MakeAndFree(text);
    }
}

template <typename Column> void IntegerToTextAndBack(benchmark::State& state) {
    int number = -123456;
    for (auto _ : state) {
        benchmark::DoNotOptimize(number);
        if (!Agrees(state, Column::ThroughText(number) == number))
            return;
    }
}

template <typename Column> void FilteredEvent(benchmark::State& state) {
    for (auto _ : state)
        Column::FilteredEvent();
}

} // namespace

#define COLUMNS(operation)                                                                                   \
    BENCHMARK_TEMPLATE(operation, Library)->Apply(Turns);                                                    \
    BENCHMARK_TEMPLATE(operation, Floor)->Apply(Turns);                                                      \
    BENCHMARK_TEMPLATE(operation, Std);                                                                      \
    BENCH_IF_QT(BENCHMARK_TEMPLATE(operation, QtCore);)                                                      \
    BENCH_IF_GLIB(BENCHMARK_TEMPLATE(operation, Glib);)
COLUMNS(MakeAndFreeBstr)
COLUMNS(IntegerToTextAndBack)
BENCHMARK_TEMPLATE(FilteredEvent, Library)->Apply(Turns);
BENCHMARK_TEMPLATE(FilteredEvent, Floor)->Apply(Turns);
