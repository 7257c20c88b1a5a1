// CPtrArray: operations on elements and their storage.
#include "Input.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return fuzz::Exercise(models::ExercisePointerArray, data, size);
}
