#include "base/Time64.h"

#include <gtest/gtest.h>
#include <time.h>

#include <cstdio>
#include <random>
#include <string>
#include <vector>

namespace {

// Reference calendar: UTC broken-down time through the C library.
time_t Utc(int y, int mo, int d, int h = 0, int mi = 0, int s = 0) {
    struct tm t {};
    t.tm_year = y - 1900;
    t.tm_mon = mo - 1;
    t.tm_mday = d;
    t.tm_hour = h;
    t.tm_min = mi;
    t.tm_sec = s;
    return timegm(&t);
}

// Every field through its getter, as "YYYY-MM-DD hh:mm:ss.mmm".
std::string Fmt(const CTime64& t) {
    char text[64];
    std::snprintf(text, sizeof text, "%04u-%02u-%02u %02u:%02u:%02u.%03u", t.GetYear(),
                  t.GetMonth(), t.GetDay(), t.GetHour(), t.GetMinute(), t.GetSecond(),
                  t.GetMilliseconds());
    return text;
}

// ---------------------------------------------------------------- layout

TEST(Time64Layout, FieldsSitAtTheirBits) {
    static_assert(sizeof(CTime64) == 8, "one packed word");
    static_assert(sizeof(CTime32) == 4, "one packed word");
    const CTime64 t(2024, 3, 5, 13, 45, 30, 250);
    const uint64_t w = (2024ull << 52) | (3ull << 48) | (5ull << 43) | (13ull << 38) |
                       (45ull << 32) | (30ull << 26) | (250ull << 16);
    EXPECT_EQ(static_cast<uint64_t>(t.GetTime()), w);
    EXPECT_EQ(t.GetTime() & 0xFFFF, 0);

    EXPECT_EQ(Fmt(CTime64(t.GetTime())), "2024-03-05 13:45:30.250");
    CTime64 assigned;
    assigned = static_cast<long>(w);
    EXPECT_EQ(assigned.GetTime(), t.GetTime());

    // Values too wide for their field are masked to it.
    EXPECT_EQ(Fmt(CTime64(4096 + 7, 16 + 2, 32 + 3, 32 + 4, 64 + 5, 64 + 6, 1024 + 8)),
              "0007-02-03 04:05:06.008");
}

TEST(Time64Layout, Year2048SetsTheTopBitComparesEarlierAndStillSpansOneDay) {
    const CTime64 y2047(2047, 12, 31, 23, 59, 59, 999);
    const CTime64 y2048(2048, 1, 1);
    EXPECT_LT(y2048.GetTime(), 0);
    EXPECT_EQ(y2048.GetYear(), 2048u);
    EXPECT_TRUE(y2048 < y2047);
    EXPECT_TRUE(y2048 < CTime64(1970, 1, 1));
    EXPECT_TRUE(CTime64(2024, 1, 2) > CTime64(2024, 1, 1, 23, 59, 59, 999));
    // 2048-01-01 compares as earlier than 2047-12-31, so the earlier branch
    // of the span runs; with different years it is the exact mirror.
    EXPECT_EQ(y2048.GetSpanSeconds(CTime64(2047, 12, 31)), 86400);
}

// ---------------------------------------------------------------- calendar

TEST(Time64Calendar, LeapYearsAndValidity) {
    for (int y : {2000, 2024}) EXPECT_TRUE(CTime64(y, 1, 1).IsLeapYear()) << "case " << y;
    for (int y : {1900, 2023, 2100}) EXPECT_FALSE(CTime64(y, 1, 1).IsLeapYear()) << "case " << y;

    for (const CTime64& t : {CTime64(2000, 2, 29), CTime64(2023, 12, 31, 23, 59, 59, 999)})
        EXPECT_TRUE(t.IsValid()) << "case " << Fmt(t);
    const CTime64 invalid[] = {
        CTime64(2023, 2, 29),           CTime64(1900, 2, 29),           CTime64(2023, 4, 31),
        CTime64(2023, 0, 1),            CTime64(2023, 13, 1),           CTime64(2023, 1, 0),
        CTime64(2023, 1, 1, 24, 0, 0, 0), CTime64(2023, 1, 1, 0, 60, 0, 0),
        CTime64(2023, 1, 1, 0, 0, 60, 0), CTime64(2023, 1, 1, 0, 0, 0, 1000)};
    for (const CTime64& t : invalid) EXPECT_FALSE(t.IsValid()) << "case " << Fmt(t);
}

TEST(Time64Calendar, WeekDaysAndWeekends) {
    EXPECT_EQ(CTime64(2024, 1, 1).GetWeekDay(), 1u);
    EXPECT_TRUE(CTime64(2024, 1, 6).IsWeekend());
    EXPECT_TRUE(CTime64(2024, 1, 7).IsWeekend());
    EXPECT_FALSE(CTime64(2024, 1, 5).IsWeekend());
}

TEST(Time64Calendar, NextDayAndWeekDayOfEveryDayAgainstTheCLibrary) {
    const struct {
        CTime64 from;
        std::vector<const char*> next;  // after each further step
    } steps[] = {
        {CTime64(2024, 2, 28, 7, 8, 9, 10), {"2024-02-29 07:08:09.010", "2024-03-01 07:08:09.010"}},
        {CTime64(2023, 12, 31), {"2024-01-01 00:00:00.000"}},
        {CTime64(1900, 2, 28), {"1900-03-01 00:00:00.000"}},
        {CTime64(2023, 2, 30), {"2023-02-31 00:00:00.000"}},  // beyond the month: the day grows
    };
    for (const auto& s : steps) {
        CTime64 t(s.from);
        for (const char* next : s.next) {
            t.NextDay();
            EXPECT_EQ(Fmt(t), next) << "case " << Fmt(s.from);
        }
    }

    // Every day of 1899-2101 against the C library: date and week day, and
    // one step forwards and back.
    CTime64 d(1899, 12, 1);
    for (time_t s = Utc(1899, 12, 1); s < Utc(2101, 1, 31); s += 86400) {
        struct tm g;
        gmtime_r(&s, &g);
        char day[32];
        strftime(day, sizeof day, "%Y-%m-%d 00:00:00.000 %w", &g);
        ASSERT_EQ(Fmt(d) + " " + std::to_string(d.GetWeekDay()), day);
        CTime64 back(d);
        back.NextDay();
        back.LastDay();
        ASSERT_EQ(back.GetTime(), d.GetTime());
        d.NextDay();
    }
}

TEST(Time64Calendar, HourShiftConstructorCrossesOneDay) {
    const CTime64 late(2024, 2, 28, 22, 15, 0, 5);
    EXPECT_EQ(Fmt(CTime64(late, 3)), "2024-02-29 01:15:00.005");
    EXPECT_EQ(Fmt(CTime64(CTime64(2024, 1, 1, 1, 0, 0, 0), -2)), "2023-12-31 23:00:00.000");
    EXPECT_EQ(CTime64(late, 0).GetTime(), late.GetTime());
    EXPECT_EQ(Fmt(CTime64(late, 1)), "2024-02-28 23:15:00.005");
}

TEST(Time64Calendar, SteppersCarryThroughAllFields) {
    CTime64 t(2023, 12, 31, 23, 59, 59, 500);
    t.NextSecond();
    EXPECT_EQ(Fmt(t), "2024-01-01 00:00:00.500");
    t.LastSecond();
    EXPECT_EQ(Fmt(t), "2023-12-31 23:59:59.500");
    t.NextMinute();
    EXPECT_EQ(Fmt(t), "2024-01-01 00:00:59.500");
    t.LastHour();
    EXPECT_EQ(Fmt(t), "2023-12-31 23:00:59.500");
    t.NextHour();
    t.AddMinute(-61);
    EXPECT_EQ(Fmt(t), "2023-12-31 22:59:59.500");
    t.AddHour(49);
    EXPECT_EQ(Fmt(t), "2024-01-02 23:59:59.500");
    t.AddSecond(-86400 * 2);
    EXPECT_EQ(Fmt(t), "2023-12-31 23:59:59.500");
    t.LastDay();
    t.LastMinute();
    EXPECT_EQ(Fmt(t), "2023-12-30 23:58:59.500");

    CTime64 leap(2024, 1, 1);
    leap.AddDay(366);
    EXPECT_EQ(Fmt(leap), "2025-01-01 00:00:00.000");
    leap.AddDay(-366 - 365);
    EXPECT_EQ(Fmt(leap), "2023-01-01 00:00:00.000");
}

TEST(Time64Calendar, AddDayMatchesRepeatedSingleSteps) {
    const CTime64 starts[] = {CTime64(2023, 1, 31), CTime64(2024, 2, 29), CTime64(1999, 12, 31),
                              CTime64(2023, 2, 30), CTime64(2023, 4, 0)};
    for (const CTime64& s : starts) {
        CTime64 fwd(s), back(s);
        for (int n = 1; n <= 800; ++n) {
            fwd.NextDay();
            back.LastDay();
            CTime64 a(s), b(s);
            a.AddDay(n);
            b.AddDay(-n);
            ASSERT_EQ(a.GetTime(), fwd.GetTime()) << n;
            ASSERT_EQ(b.GetTime(), back.GetTime()) << n;
        }
    }
}

// ---------------------------------------------------------------- spans

TEST(Time64Span, LaterAgainstEarlierIsTheTrueSpan) {
    EXPECT_EQ(CTime64(2024, 3, 1).GetSpanSeconds(CTime64(2024, 2, 28)), 172800);
    EXPECT_EQ(CTime64(2023, 3, 1).GetSpanSeconds(CTime64(2023, 2, 28)), 86400);

    std::mt19937 rng(12345);
    std::uniform_int_distribution<int> year(1890, 2040), month(1, 12), day(1, 28), hour(0, 23),
        minsec(0, 59);
    for (int i = 0; i < 20000; ++i) {
        int v[2][6];
        for (auto& f : v)
            f[0] = year(rng), f[1] = month(rng), f[2] = day(rng), f[3] = hour(rng),
            f[4] = minsec(rng), f[5] = minsec(rng);
        const CTime64 a(v[0][0], v[0][1], v[0][2], v[0][3], v[0][4], v[0][5], 0);
        const CTime64 b(v[1][0], v[1][1], v[1][2], v[1][3], v[1][4], v[1][5], 0);
        const int64_t truth = static_cast<int64_t>(Utc(v[0][0], v[0][1], v[0][2], v[0][3],
                                                      v[0][4], v[0][5])) -
                              Utc(v[1][0], v[1][1], v[1][2], v[1][3], v[1][4], v[1][5]);
        if (a > b) {
            ASSERT_EQ(a.GetSpanSeconds(b), truth);
        } else if (a < b && (v[0][0] != v[1][0] || v[0][1] == v[1][1])) {
            // Earlier, other year or same month: the mirror is exact too.
            ASSERT_EQ(a.GetSpanSeconds(b), truth);
        }
    }
}

TEST(Time64Span, EarlierSameYearOtherMonthCountsOnlyDaysOfMonth) {
    const CTime64 feb28(2024, 2, 28, 10, 0, 0, 0);
    const CTime64 mar05(2024, 3, 5, 10, 0, 0, 0);
    EXPECT_EQ(feb28.GetSpanSeconds(mar05), 1987200);
    EXPECT_EQ(mar05.GetSpanSeconds(feb28), 6 * 86400);

    // -(d x 86400) - other's seconds of day + own, with d = 15 - 10.
    const CTime64 a(2024, 1, 10, 8, 0, 0, 0);
    const CTime64 b(2024, 2, 15, 6, 0, 0, 0);
    EXPECT_EQ(a.GetSpanSeconds(b), -5 * 86400 - 6 * 3600 + 8 * 3600);

    EXPECT_EQ(CTime64(2024, 3, 1).GetSpanSeconds(CTime64(2024, 3, 5, 1, 0, 0, 0)),
              -4 * 86400 - 3600);
    EXPECT_EQ(CTime64(2023, 12, 31).GetSpanSeconds(CTime64(2024, 3, 1)), -61 * 86400);
}

TEST(Time64Span, EqualValuesAndMilliseconds) {
    const CTime64 a(2024, 5, 6, 7, 8, 9, 900);
    const CTime64 b(2024, 5, 6, 7, 8, 10, 200);
    EXPECT_EQ(a.GetSpanSeconds(a), 0);
    EXPECT_EQ(a.GetSpanSeconds(CTime64(2024, 5, 6, 7, 8, 9, 100)), 0);  // ms ignored
    EXPECT_EQ(b.GetSpanSeconds(a), 1);
    EXPECT_EQ(b.GetSpanMilliseconds(a), 300);
    EXPECT_EQ(a.GetSpanMilliseconds(b), -300);
    EXPECT_EQ(a.GetSpanMilliseconds(a), 0);
}

// ---------------------------------------------------------------- CTime32

TEST(Time32Test, LayoutAndConversions) {
    const CTime32 t(2024, 3, 5, 13, 45, 30);
    EXPECT_EQ(t.GetTime(), (24u << 26) | (3u << 22) | (5u << 17) | (13u << 12) | (45u << 6) | 30u);
    EXPECT_EQ(t.GetYear(), 2024u);
    EXPECT_EQ(t.GetWeekDay(), 2u);

    const CTime64 wide(2024, 3, 5, 13, 45, 30, 999);
    EXPECT_EQ(CTime32(wide).GetTime(), t.GetTime());
    const CTime64 back(t);
    EXPECT_EQ(Fmt(back), "2024-03-05 13:45:30.000");
    CTime64 assigned;
    assigned = t;
    EXPECT_EQ(assigned.GetTime(), back.GetTime());

    EXPECT_EQ(CTime32(2064, 1, 1).GetYear(), 2000u);      // six-bit year wraps
    EXPECT_TRUE(CTime32(2063, 1, 1) > CTime32(2040, 1, 1));  // unsigned order
}

TEST(Time32Test, SteppingAndExactSpans) {
    CTime32 t(2024, 2, 28, 23, 59, 59);
    t.NextSecond();
    EXPECT_EQ(t.GetDay(), 29u);
    t.NextDay();
    EXPECT_EQ(t.GetMonth(), 3u);
    EXPECT_TRUE(t.IsValid());
    EXPECT_FALSE(CTime32(2023, 2, 29).IsValid());

    const CTime32 feb28(2024, 2, 28, 10, 0, 0);
    const CTime32 mar05(2024, 3, 5, 10, 0, 0);
    EXPECT_EQ(mar05.GetSpanSeconds(feb28), 6 * 86400);
    EXPECT_EQ(feb28.GetSpanSeconds(mar05), -6 * 86400);
}

}  // namespace
