#include <Windows/Stream.h>

void STREAM::Release() {}
