// Symbol visibility of the library.
//
// The library is built with hidden visibility; what callers may use carries
// MDX_EXPORT. The tests link a static archive of the same objects, so they
// see the internal symbols as well.
#pragma once

#define MDX_EXPORT __attribute__((visibility("default")))

#ifdef __cplusplus
#define MDX_EXTERN_C extern "C"
#else
#define MDX_EXTERN_C
#endif
