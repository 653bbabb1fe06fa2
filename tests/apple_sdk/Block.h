// The blocks runtime's copy and release.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif
void* _Block_copy(const void* block);
void _Block_release(const void* block);
#ifdef __cplusplus
}
#endif

// A heap copy of `block`, of the block's own type.
#define Block_copy(block) ((__typeof(block))_Block_copy((const void*)(block)))
#define Block_release(block) _Block_release((const void*)(block))
