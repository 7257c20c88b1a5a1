// XString: operations on strings that share and rebuild their buffers.
#include "Input.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    return fuzz::Exercise(models::ExerciseString, data, size);
}
