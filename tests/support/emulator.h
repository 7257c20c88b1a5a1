// Whether the program runs under an emulator.
#ifndef SUPPORT_EMULATOR_H
#define SUPPORT_EMULATOR_H

#include <stdlib.h>

// What a program of this architecture is started with; "" without an emulator.
inline const char* EmulatorCommand() {
    const char* command = getenv("WINDOWS_TEST_EMULATOR");
    return command ? command : "";
}

inline bool UnderEmulator() { return *EmulatorCommand() != '\0'; }

// Why cases that need a cancelled thread's stack to be unwound skip themselves there.
const char kNoUnwinding[] = "under the emulator the destructors on a cancelled thread's stack are not run";

#endif
