// Packed calendar date-and-time values.
//
// CTime64 packs a date and time with milliseconds into one 64-bit word
// (bit 0 least significant):
//
//   bits  0-15  reserved, always 0
//   bits 16-25  milliseconds  0-999
//   bits 26-31  second        0-59
//   bits 32-37  minute        0-59
//   bits 38-42  hour          0-23
//   bits 43-47  day           1-31
//   bits 48-51  month         1-12
//   bits 52-63  year
//
// Every field is stored masked to its width; nothing is range-checked on the
// way in (IsValid tells). The word is compared as a SIGNED 64-bit integer, so
// values order chronologically only for years below 2048: from 2048 on the
// top bit is set and such values compare as earlier than all smaller years.
//
// CTime32 is the 32-bit sibling without milliseconds (layout below). It
// keeps the year as an offset from 2000 and compares as unsigned.
//
// Steppers (Next*/Last*/Add*) work in place on the fields; a year stepped
// beyond the field's width wraps (masked) like every other stored field.
#ifndef ORVEX_BASE_TIME64_H
#define ORVEX_BASE_TIME64_H

#include <cstdint>
#include <type_traits>

static_assert(sizeof(long) == 8 && std::is_same<long, int64_t>::value,
              "the packed 64-bit time word is a long");

// Month tables and calendar rules shared by CTime64 and CTime32.
class CTimeBase {
public:
    // Days before each month in a common year.
    static constexpr unsigned m_uDaysStartMonth[12] = {0,   31,  59,  90,  120, 151,
                                                       181, 212, 243, 273, 304, 334};
    // Days of each month in a common year.
    static constexpr unsigned m_uDaysOfMonth[12] = {31, 28, 31, 30, 31, 30,
                                                    31, 31, 30, 31, 30, 31};

    // Divisible by 400, or by 4 and not by 100.
    static bool IsLeap(unsigned year);
    // Length of month (29 for February of a leap year); 0 for a month
    // outside 1-12.
    static unsigned DaysInMonth(unsigned year, unsigned month);
    // 0 Sunday .. 6 Saturday.
    static unsigned WeekDay(unsigned year, unsigned month, unsigned day);
};

// Steppers shared by both widths: each moves the value's fields by the
// calendar and packs them again; a year stepped beyond the field's width
// wraps. T is the packed value class itself.
template <class T>
class CTimeSteps : public CTimeBase {
public:
    void NextDay();
    void LastDay();
    void NextHour() { AddHour(1); }
    void LastHour() { AddHour(-1); }
    void NextMinute() { AddMinute(1); }
    void LastMinute() { AddMinute(-1); }
    void NextSecond() { AddSecond(1); }
    void LastSecond() { AddSecond(-1); }
    void AddDay(int days);
    void AddHour(int hours);
    void AddMinute(int minutes);
    void AddSecond(int seconds);
    bool IsWeekend() const;
};

class CTime64;
class CTime32;
extern template class CTimeSteps<CTime32>;
extern template class CTimeSteps<CTime64>;

// 32-bit packed date and time, seconds resolution:
//
//   bits  0-5   second        0-59
//   bits  6-11  minute        0-59
//   bits 12-16  hour          0-23
//   bits 17-21  day           1-31
//   bits 22-25  month         1-12
//   bits 26-31  year - 2000   (2000-2063)
class CTime32 : public CTimeSteps<CTime32> {
public:
    static constexpr unsigned kBaseYear = 2000;

    CTime32() : m_time(0) {}
    CTime32(const uint32_t& packed) : m_time(packed) {}
    CTime32(const CTime32& other) = default;
    CTime32(const CTime64& t);  // milliseconds dropped, year reduced
    CTime32(unsigned year, unsigned month, unsigned day);
    CTime32(unsigned year, unsigned month, unsigned day, unsigned hour, unsigned minute,
            unsigned second);

    CTime32& operator=(const CTime32& other) = default;
    CTime32& operator=(const CTime64& t);
    CTime32& operator=(const uint32_t& packed) {
        m_time = packed;
        return *this;
    }

    uint32_t GetTime() const { return m_time; }

    unsigned GetYear() const { return kBaseYear + (m_time >> 26); }
    unsigned GetMonth() const { return (m_time >> 22) & 0xF; }
    unsigned GetDay() const { return (m_time >> 17) & 0x1F; }
    unsigned GetHour() const { return (m_time >> 12) & 0x1F; }
    unsigned GetMinute() const { return (m_time >> 6) & 0x3F; }
    unsigned GetSecond() const { return m_time & 0x3F; }
    unsigned GetWeekDay() const { return WeekDay(GetYear(), GetMonth(), GetDay()); }
    bool IsLeapYear() const { return IsLeap(GetYear()); }
    bool IsValid() const;

    bool operator<(const CTime32& o) const { return m_time < o.m_time; }
    bool operator>(const CTime32& o) const { return m_time > o.m_time; }
    bool operator<=(const CTime32& o) const { return m_time <= o.m_time; }
    bool operator>=(const CTime32& o) const { return m_time >= o.m_time; }
    bool operator==(const CTime32& o) const { return m_time == o.m_time; }
    bool operator!=(const CTime32& o) const { return m_time != o.m_time; }

    // Exact seconds from other to this value (positive when this is later).
    int64_t GetSpanSeconds(const CTime32& other) const;

private:
    uint32_t m_time;
};

class CTime64 : public CTimeSteps<CTime64> {
public:
    CTime64() : m_time(0) {}
    CTime64(const long& packed) : m_time(packed) {}
    CTime64(const CTime64& other) = default;
    CTime64(const CTime32& t);
    // 00:00:00.000 of the given day.
    CTime64(unsigned year, unsigned month, unsigned day);
    CTime64(unsigned year, unsigned month, unsigned day, unsigned hour, unsigned minute,
            unsigned second, unsigned milliseconds);
    // t moved by hours. Crosses at most one day, so meant for |hours| < 24.
    CTime64(const CTime64& t, int hours);

    CTime64& operator=(const CTime64& other) = default;
    CTime64& operator=(const CTime32& t);
    CTime64& operator=(const long& packed) {
        m_time = packed;
        return *this;
    }

    int64_t GetTime() const { return m_time; }

    unsigned GetYear() const { return static_cast<unsigned>(Word() >> 52) & 0xFFF; }
    unsigned GetMonth() const { return static_cast<unsigned>(Word() >> 48) & 0xF; }
    unsigned GetDay() const { return static_cast<unsigned>(Word() >> 43) & 0x1F; }
    unsigned GetHour() const { return static_cast<unsigned>(Word() >> 38) & 0x1F; }
    unsigned GetMinute() const { return static_cast<unsigned>(Word() >> 32) & 0x3F; }
    unsigned GetSecond() const { return static_cast<unsigned>(Word() >> 26) & 0x3F; }
    unsigned GetMilliseconds() const { return static_cast<unsigned>(Word() >> 16) & 0x3FF; }
    unsigned GetWeekDay() const { return WeekDay(GetYear(), GetMonth(), GetDay()); }
    bool IsLeapYear() const { return IsLeap(GetYear()); }
    bool IsValid() const;

    // Signed comparison of the packed words (see the note on year 2048).
    bool operator<(const CTime64& o) const { return m_time < o.m_time; }
    bool operator>(const CTime64& o) const { return m_time > o.m_time; }
    bool operator<=(const CTime64& o) const { return m_time <= o.m_time; }
    bool operator>=(const CTime64& o) const { return m_time >= o.m_time; }
    bool operator==(const CTime64& o) const { return m_time == o.m_time; }
    bool operator!=(const CTime64& o) const { return m_time != o.m_time; }

    // Seconds from other to this value, milliseconds ignored; positive when
    // this value is later by the packed-word order.
    //
    // When this value is EARLIER the day count deliberately differs from the
    // later case: within one year, differing months count only the day of
    // month (other.day - day), so the result is not the negated true span.
    // Callers depend on this exact arithmetic.
    int64_t GetSpanSeconds(const CTime64& other) const;
    // GetSpanSeconds x 1000 plus the difference of the millisecond fields.
    int64_t GetSpanMilliseconds(const CTime64& other) const;

private:
    uint64_t Word() const { return static_cast<uint64_t>(m_time); }

    int64_t m_time;
};

#endif
