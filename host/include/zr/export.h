#pragma once

/// Marks a symbol of a bexko shared library (the host runtime or the engine library) as part of
/// its API. Everything else is hidden, so that a module library cannot grow a dependency on a
/// host internal.
#if defined(__GNUC__)
#define BEXKO_API __attribute__((visibility("default")))
#else
#define BEXKO_API
#endif
