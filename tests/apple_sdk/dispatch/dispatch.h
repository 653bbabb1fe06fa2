// The libdispatch declarations our macOS sources use, in the shape they have for C++ sources
// (not Objective-C): dispatch objects are pointers to structs, and a queue converts to the
// general object type that dispatch_release() takes.
#pragma once

#ifdef __cplusplus
struct dispatch_object_s {};
struct dispatch_queue_s : dispatch_object_s {};
struct dispatch_queue_attr_s : dispatch_object_s {};
typedef dispatch_object_s* dispatch_object_t;
typedef dispatch_queue_s* dispatch_queue_t;
typedef dispatch_queue_attr_s* dispatch_queue_attr_t;

extern "C" {
#endif

typedef void (*dispatch_function_t)(void* context);

// The attribute for a serial queue is no attribute at all.
#define DISPATCH_QUEUE_SERIAL nullptr

dispatch_queue_t dispatch_queue_create(const char* label, dispatch_queue_attr_t attributes);
dispatch_queue_t dispatch_get_main_queue(void);
void dispatch_async_f(dispatch_queue_t queue, void* context, dispatch_function_t work);
void dispatch_sync_f(dispatch_queue_t queue, void* context, dispatch_function_t work);
void dispatch_release(dispatch_object_t object);
void dispatch_queue_set_specific(dispatch_queue_t queue, const void* key, void* context,
                                 dispatch_function_t destructor);
void* dispatch_get_specific(const void* key);

#ifdef __cplusplus
}
#endif
