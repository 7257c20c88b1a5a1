// What a host may define for the conformance program, in a source file that is linked with it.
#ifndef HOST_CONFORMANCE_HOOK_H
#define HOST_CONFORMANCE_HOOK_H

// Makes the host write every event of type 11 and severity 1 to file from now on, and know the services that
// --service names. Called once at the start of main, in the process of each clause; file is NULL when the log
// is not asked for. The text lives as long as the process.
//
// Weak: without a definition the clauses that look at the log need --log FILE.
extern "C" __attribute__((weak)) void HostConformanceHook(const char* file);

#endif
