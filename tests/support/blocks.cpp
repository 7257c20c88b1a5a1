#include "support/blocks.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <link.h>
#include <stdio.h>
#include <stdlib.h>

#include "support/interpose.h"
#include "support/text.h"

namespace {

// A table without a lock, as it is used within malloc and after fork. Each address has one bucket that it can
// be in; one that finds it full is not tracked, which takes some 100,000 blocks.
struct Slot {
    uintptr_t block;
    uintptr_t caller;
};
const int BUCKET_BITS = 16;
const int BUCKET_SIZE = 8;
Slot g_table[1 << BUCKET_BITS][BUCKET_SIZE];

// How many blocks each stretch of the table holds: at the end of a case few have any, and each case has all
// blocks listed twice.
const int STRETCH_BITS = 8;
int g_blocks[1 << (BUCKET_BITS - STRETCH_BITS)];

int& BlocksAround(uint32_t bucket) { return g_blocks[bucket >> STRETCH_BITS]; }

// Where the library's code lies.
uintptr_t g_begin;
uintptr_t g_end;

uint32_t Index(uintptr_t block) {
    return static_cast<uint32_t>(block >> 3) * 2654435769U >> (32 - BUCKET_BITS);
}

Slot* Bucket(uintptr_t block) { return g_table[Index(block)]; }

int TakeRange(dl_phdr_info* object, size_t, void*) {
    if (std::string(object->dlpi_name).find("/libWindows.so") == std::string::npos)
        return 0;
    for (int i = 0; i < object->dlpi_phnum; i++)
        if (object->dlpi_phdr[i].p_type == PT_LOAD && object->dlpi_phdr[i].p_flags & PF_X) {
            g_begin = object->dlpi_addr + object->dlpi_phdr[i].p_vaddr;
            g_end = g_begin + object->dlpi_phdr[i].p_memsz;
        }
    return 1;
}

} // namespace

void LibraryBlocks::Install() { dl_iterate_phdr(TakeRange, nullptr); }

void LibraryBlocks::Born(const void* block, const void* caller) {
    const uintptr_t from = reinterpret_cast<uintptr_t>(caller);
    if (!block || from < g_begin || from >= g_end)
        return;
    const uintptr_t address = reinterpret_cast<uintptr_t>(block);
    Slot* bucket = Bucket(address);
    for (int i = 0; i < BUCKET_SIZE; i++) {
        uintptr_t none = 0;
        if (__atomic_compare_exchange_n(&bucket[i].block, &none, address, false, __ATOMIC_RELAXED,
                                        __ATOMIC_RELAXED)) {
            __atomic_store_n(&bucket[i].caller, from, __ATOMIC_RELAXED);
            __atomic_fetch_add(&BlocksAround(Index(address)), 1, __ATOMIC_RELAXED);
            return;
        }
    }
}

void LibraryBlocks::Gone(const void* block) {
    const uintptr_t address = reinterpret_cast<uintptr_t>(block);
    if (!block || __atomic_load_n(&BlocksAround(Index(address)), __ATOMIC_RELAXED) == 0)
        return;
    Slot* bucket = Bucket(address);
    for (int i = 0; i < BUCKET_SIZE; i++)
        if (__atomic_load_n(&bucket[i].block, __ATOMIC_RELAXED) == address) {
            __atomic_store_n(&bucket[i].block, uintptr_t{0}, __ATOMIC_RELAXED);
            __atomic_fetch_sub(&BlocksAround(Index(address)), 1, __ATOMIC_RELAXED);
            return;
        }
}

std::set<uintptr_t> LibraryBlocks::All() {
    Bypass bypass;
    std::set<uintptr_t> blocks;
    for (uint32_t first = 0; first < 1U << BUCKET_BITS; first += 1U << STRETCH_BITS) {
        if (__atomic_load_n(&BlocksAround(first), __ATOMIC_RELAXED) == 0)
            continue;
        for (uint32_t bucket = first; bucket < first + (1U << STRETCH_BITS); bucket++)
            for (const Slot& slot : g_table[bucket])
                if (const uintptr_t block = __atomic_load_n(&slot.block, __ATOMIC_RELAXED))
                    blocks.insert(block);
    }
    return blocks;
}

std::string LibraryBlocks::Origin(uintptr_t block) {
    const Slot* bucket = Bucket(block);
    for (int i = 0; i < BUCKET_SIZE; i++)
        if (bucket[i].block == block) {
            Dl_info info;
            if (!dladdr(reinterpret_cast<void*>(bucket[i].caller), &info) || !info.dli_sname)
                return Text("libWindows+%#lx", static_cast<unsigned long>(bucket[i].caller - g_begin));
            char* name = abi::__cxa_demangle(info.dli_sname, nullptr, nullptr, nullptr);
            const std::string origin = Text(
                "%s+%#lx", name ? name : info.dli_sname,
                static_cast<unsigned long>(bucket[i].caller - reinterpret_cast<uintptr_t>(info.dli_saddr)));
            free(name);
            return origin;
        }
    return "?";
}
