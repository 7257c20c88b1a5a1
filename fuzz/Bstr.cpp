// BSTR and _bstr_t: operations on texts that carry their lengths.
#include "Input.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return fuzz::Exercise(models::ExerciseBstr, data, size);
}
