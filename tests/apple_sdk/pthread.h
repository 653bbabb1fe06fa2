// The C library's pthread.h plus Apple's main-thread test.
#pragma once

#include_next <pthread.h>

extern "C" int pthread_main_np(void);
