// sysctl(3) and the two names the model identifier reads (hw.model).
#pragma once

#include <stddef.h>

#define CTL_HW 6
#define HW_MODEL 2

extern "C" int sysctl(int* name, unsigned int nameLength, void* oldValue, size_t* oldLength,
                      void* newValue, size_t newLength);
