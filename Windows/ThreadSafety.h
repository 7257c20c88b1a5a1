// Names for clang's thread safety analysis: which lock guards what. Other compilers see nothing.
#ifndef WINDOWS_THREADSAFETY_H
#define WINDOWS_THREADSAFETY_H

// An attribute where the compiler knows them, nothing elsewhere.
#if defined(__clang__)
#define WINDOWS_THREAD_ATTRIBUTE(x) __attribute__((x))
#else
#define WINDOWS_THREAD_ATTRIBUTE(x)
#endif

// A lock; a holder of one for a scope; what a lock guards; what takes it, releases it, needs it, and is not
// looked at.
#define WINDOWS_CAPABILITY(name) WINDOWS_THREAD_ATTRIBUTE(capability(name))
#define WINDOWS_SCOPED_CAPABILITY WINDOWS_THREAD_ATTRIBUTE(scoped_lockable)
#define WINDOWS_GUARDED_BY(lock) WINDOWS_THREAD_ATTRIBUTE(guarded_by(lock))
#define WINDOWS_ACQUIRE(...) WINDOWS_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
#define WINDOWS_RELEASE(...) WINDOWS_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
#define WINDOWS_REQUIRES(...) WINDOWS_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
#define WINDOWS_NO_THREAD_SAFETY_ANALYSIS WINDOWS_THREAD_ATTRIBUTE(no_thread_safety_analysis)

#endif
