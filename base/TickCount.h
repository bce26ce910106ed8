// Millisecond tick of the monotonic clock.
//
// The value is 32 bits wide and wraps to 0 after 2^32 ms (about 49.7 days).
// Compare ticks only by unsigned 32-bit subtraction:
//     uint32_t elapsed = GetTickCount() - start;
// which stays correct across the wrap; never compare them with < or >.
#ifndef ORVEX_BASE_TICKCOUNT_H
#define ORVEX_BASE_TICKCOUNT_H

#include <cstdint>

uint32_t GetTickCount();

#endif
