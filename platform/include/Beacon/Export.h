// Symbol visibility for the shared library. Everything is hidden by default;
// only what carries HERON_EXPORT is visible from libheron.so.
#pragma once

// HERON_HIDDEN keeps one member of an exported class out of the library's
// interface (it stays callable from inside the library and its own tests).
#if defined(__GNUC__)
#define HERON_EXPORT __attribute__((visibility("default")))
#define HERON_HIDDEN __attribute__((visibility("hidden")))
#else
#define HERON_EXPORT
#define HERON_HIDDEN
#endif
