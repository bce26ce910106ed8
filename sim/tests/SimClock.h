// A fixed local moment shared by the simulator's tests, so that their
// markets open at the same hour whatever the machine's time zone.
#ifndef ORVEX_SIM_TESTS_SIM_CLOCK_H
#define ORVEX_SIM_TESTS_SIM_CLOCK_H

#include <cstdint>
#include <ctime>

// 2024-12-03 10:00:00 local time, in milliseconds.
inline int64_t Morning() {
    struct tm t = {};
    t.tm_year = 124;
    t.tm_mon = 11;
    t.tm_mday = 3;
    t.tm_hour = 10;
    t.tm_isdst = -1;
    return static_cast<int64_t>(mktime(&t)) * 1000;
}

#endif
