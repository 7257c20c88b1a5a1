// Reads and writes of plain fields that threads share without a lock: the counts may lose updates and the
// flags may be seen late, as their contract says, but each access is whole and the program stays defined.
#ifndef WINDOWS_INTERNAL_RELAXED_H
#define WINDOWS_INTERNAL_RELAXED_H

namespace windows {

template <typename T> T RelaxedLoad(const T& field) { return __atomic_load_n(&field, __ATOMIC_RELAXED); }

template <typename T> void RelaxedStore(T& field, T value) {
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}

// A flag that says that the other thread is done with something.
template <typename T> T AcquireLoad(const T& field) { return __atomic_load_n(&field, __ATOMIC_ACQUIRE); }

template <typename T> void ReleaseStore(T& field, T value) {
    __atomic_store_n(&field, value, __ATOMIC_RELEASE);
}

} // namespace windows

#endif
