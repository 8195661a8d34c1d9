// Symbol visibility for the shared library. Everything is hidden by default;
// only what carries HERON_EXPORT is visible from libheron.so.
#pragma once

#if defined(__GNUC__)
#define HERON_EXPORT __attribute__((visibility("default")))
#else
#define HERON_EXPORT
#endif
