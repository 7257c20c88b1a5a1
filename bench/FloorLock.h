// What locking and unlocking comes to: each announces itself and its result to the host.
#ifndef BENCH_FLOORLOCK_H
#define BENCH_FLOORLOCK_H

#include <pthread.h>

#include <host/Logger.h>

#include "Bench.h"

FLOOR_CALL inline void FloorLock(pthread_mutex_t& mutex) {
    const unsigned long tid = pthread_self();
    CLogger::PostLogEventF(LogTypeMutex, LogSeverityMutexEntry, "lock %lu %lx", 0xFFFFFFFFUL, tid);
    const bool locked = pthread_mutex_lock(&mutex) == 0;
    CLogger::PostLogEventF(LogTypeMutex, LogSeverityTrace, "locked %s %lx", locked ? "true" : "false", tid);
}

FLOOR_CALL inline void FloorUnlock(pthread_mutex_t& mutex) {
    const unsigned long tid = pthread_self();
    CLogger::PostLogEventF(LogTypeMutex, LogSeverityMutexEntry, "unlock %lx", tid);
    pthread_mutex_unlock(&mutex);
    CLogger::PostLogEventF(LogTypeMutex, LogSeverityTrace, "unlocked %lx", tid);
}

#endif
