#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/// The library's base64 encoder, for the peer in C. `out` has room for the text
/// and a NUL.
size_t bench_base64(const char* data, size_t size, char* out);

#ifdef __cplusplus
}
#endif
