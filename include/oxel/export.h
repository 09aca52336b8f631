// Symbol visibility for the shared library: only what carries OXEL_API is exported.
#ifndef OXEL_EXPORT_H
#define OXEL_EXPORT_H

#if defined(OXEL_BUILDING_LIBRARY)
#define OXEL_API __attribute__((visibility("default")))
#else
#define OXEL_API
#endif

// A branch hint for the inline fast paths of the public headers.
#if defined(__GNUC__)
#define OXEL_LIKELY(x) __builtin_expect(!!(x), 1)
#else
#define OXEL_LIKELY(x) (x)
#endif

#endif
