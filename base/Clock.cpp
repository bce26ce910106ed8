#include "base/Clock.h"

#include <cstdlib>

#include "base/TickCount.h"

namespace orvex {
namespace {

uint32_t RealTick() { return GetTickCount(); }
time_t RealWallTime() { return time(nullptr); }
int RealRandom() { return rand(); }
void RealSeed(unsigned s) { srand(s); }

ClockHooks g_hooks = {RealTick, RealWallTime, RealRandom, RealSeed};

}  // namespace

ClockHooks& Clock() { return g_hooks; }

void RestoreClock() { g_hooks = ClockHooks{RealTick, RealWallTime, RealRandom, RealSeed}; }

struct tm LocalNow() {
    time_t t = NowTime();
    struct tm out {};
    localtime_r(&t, &out);
    return out;
}

int TodayYmd() {
    struct tm t = LocalNow();
    return (t.tm_year + 1900) * 10000 + (t.tm_mon + 1) * 100 + t.tm_mday;
}

int NowHms() {
    struct tm t = LocalNow();
    return t.tm_hour * 10000 + t.tm_min * 100 + t.tm_sec;
}

}  // namespace orvex
