// Time and randomness as the workers see them.
//
// The DC and file-service workers read the monotonic tick, the wall clock and
// the random generator only through these hooks, so that tests can run the
// 10 s reconnect, the 15 s heartbeat and the daily 05:00 reconnect in
// milliseconds. The hooks default to the real clock and to rand(); they are
// process-wide and meant to be replaced only while no worker runs.
#ifndef ORVEX_BASE_CLOCK_H
#define ORVEX_BASE_CLOCK_H

#include <cstdint>
#include <ctime>

namespace orvex {

struct ClockHooks {
    uint32_t (*tick)();        // 32-bit millisecond tick (wraps)
    time_t (*wallTime)();      // seconds since the epoch, for local time
    int (*random)();           // like rand()
    void (*seed)(unsigned);    // like srand()
};

// The hooks in force. Assign members to replace them; RestoreClock() puts
// the real ones back.
ClockHooks& Clock();
void RestoreClock();

inline uint32_t NowTick() { return Clock().tick(); }
inline time_t NowTime() { return Clock().wallTime(); }
inline int Random() { return Clock().random(); }
inline void SeedRandom(unsigned s) { Clock().seed(s); }

// Local broken-down time of NowTime(), thread-safe.
struct tm LocalNow();
// YYYYMMDD and HHMMSS of LocalNow().
int TodayYmd();
int NowHms();

}  // namespace orvex

#endif
