// How much a case does: little in a usual run, a lot where WINDOWS_TEST_LONG is set (script/test long).
#ifndef ROBUSTNESS_FORM_H
#define ROBUSTNESS_FORM_H

#include <stdlib.h>

#include <algorithm>

#include "support/deadline.h"

inline bool IsLongForm() { return getenv("WINDOWS_TEST_LONG") != nullptr; }

// Less where everything takes longer, but at least one.
inline int HowMany(int inShortForm, int inLongForm) {
    return std::max(1, static_cast<int>((IsLongForm() ? inLongForm : inShortForm) / Deadline::Multiplier()));
}

#endif
