// For bodies that are folded into their callers, so that a view of an address or of registers, and the side that an
// address is on, are notation only and cost nothing.
#pragma once

#define INLINE_BODY static inline __attribute__((always_inline))

// For what few instructions need: kept out of its caller, which then saves fewer registers and has no arrays.
#define SELDOM static __attribute__((noinline, cold))
