#include "base/Time64.h"

namespace {

// Unpacked fields; the steppers work on these and the classes pack the
// result back (masking every field to its width, which is where a year
// stepped beyond its range wraps).
struct Fields {
    int64_t year;
    int month, day, hour, minute, second, ms;
};

bool LeapYear(int64_t y) { return y % 400 == 0 || (y % 4 == 0 && y % 100 != 0); }

int MonthLength(int64_t year, int month) {
    if (month < 1 || month > 12) return 0;
    if (month == 2 && LeapYear(year)) return 29;
    return static_cast<int>(CTimeBase::m_uDaysOfMonth[month - 1]);
}

// Days before month in a common year; months outside 1-12 are clamped so
// that an invalid value never reads outside the table.
int64_t DaysBefore(int month) {
    if (month < 1) return 0;
    if (month > 12) return 365;
    return CTimeBase::m_uDaysStartMonth[month - 1];
}

int64_t FloorDiv(int64_t a, int64_t b) {
    int64_t q = a / b;
    if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
    return q;
}

// Last day of the month -> first of the next month (December -> January of
// the next year); any other day, also one beyond the month's length, just
// grows by one. A month outside 1-12 has no last day.
void StepNextDay(Fields& f) {
    const int len = MonthLength(f.year, f.month);
    if (len != 0 && f.day == len) {
        f.day = 1;
        if (f.month == 12) {
            f.month = 1;
            ++f.year;
        } else {
            ++f.month;
        }
    } else {
        f.day = (f.day + 1) & 0x1F;
    }
}

// Mirror of NextDay: the first day (or day 0) goes to the last day of the
// previous month (January -> December of the previous year).
void StepLastDay(Fields& f) {
    if (MonthLength(f.year, f.month) != 0 && f.day <= 1) {
        if (f.month == 1) {
            f.month = 12;
            --f.year;
        } else {
            --f.month;
        }
        f.day = MonthLength(f.year, f.month);
    } else {
        f.day = (f.day - 1) & 0x1F;
    }
}

// Same result as |n| single steps, but jumps whole months when it can.
void AddDays(Fields& f, int64_t n) {
    while (n > 0) {
        const int len = MonthLength(f.year, f.month);
        if (len == 0) {
            f.day = static_cast<int>((f.day + n) & 0x1F);
            return;
        }
        if (f.day > len) {  // invalid day: step singly until it wraps
            StepNextDay(f);
            --n;
            continue;
        }
        if (f.day + n <= len) {
            f.day += static_cast<int>(n);
            return;
        }
        n -= len - f.day + 1;
        f.day = len;
        StepNextDay(f);
    }
    while (n < 0) {
        const int len = MonthLength(f.year, f.month);
        if (len == 0) {
            f.day = static_cast<int>((f.day + n) & 0x1F);
            return;
        }
        if (f.day >= 1 && -n < f.day) {
            f.day += static_cast<int>(n);
            return;
        }
        n += f.day >= 1 ? f.day : 1;
        f.day = 1;
        StepLastDay(f);
    }
}

// Adds n to a field that holds `base` units of the next one, and carries
// the whole units over to it.
template <class Carry>
void AddCarried(int& field, int64_t n, int64_t base, Carry carry) {
    if (n == 0) return;
    const int64_t total = field + n;
    const int64_t over = FloorDiv(total, base);
    field = static_cast<int>(total - over * base);
    carry(over);
}

void AddHours(Fields& f, int64_t n) {
    AddCarried(f.hour, n, 24, [&f](int64_t days) { AddDays(f, days); });
}

void AddMinutes(Fields& f, int64_t n) {
    AddCarried(f.minute, n, 60, [&f](int64_t hours) { AddHours(f, hours); });
}

void AddSeconds(Fields& f, int64_t n) {
    AddCarried(f.second, n, 60, [&f](int64_t minutes) { AddMinutes(f, minutes); });
}

bool ValidFields(const Fields& f) {
    return f.month >= 1 && f.month <= 12 && f.day >= 1 && f.day <= MonthLength(f.year, f.month) &&
           f.hour < 24 && f.minute < 60 && f.second < 60 && f.ms <= 999;
}

int64_t SecondsOfDay(const Fields& f) { return f.hour * 3600 + f.minute * 60 + f.second; }

// Leap days up to and including year n.
int64_t LeapsThrough(int64_t n) { return n / 4 - n / 100 + n / 400; }

// Day count from b to a, where a is the later value: the exact Gregorian
// difference for valid dates.
int64_t DaysLater(const Fields& a, const Fields& b) {
    if (a.year != b.year) {
        int64_t d = (a.year - b.year) * 365 + LeapsThrough(a.year - 1) - LeapsThrough(b.year) +
                    DaysBefore(a.month) + a.day - (DaysBefore(b.month) + b.day);
        if (a.month > 2 && LeapYear(a.year)) ++d;
        if (b.month <= 2 && LeapYear(b.year)) ++d;
        return d;
    }
    if (a.month != b.month) {
        int64_t d = DaysBefore(a.month) + a.day - (DaysBefore(b.month) + b.day);
        if (a.month > 2 && b.month < 3 && LeapYear(a.year)) ++d;
        return d;
    }
    return a.day - b.day;
}

// Day count when this value (a) is earlier than other (b). For equal years
// the month handling is swapped against DaysLater: differing months count
// only the days of month, equal months take the day-of-year form. Kept
// exactly so; see the note in the header.
int64_t DaysEarlier(const Fields& a, const Fields& b) {
    if (a.year != b.year) return DaysLater(b, a);
    if (a.month != b.month) return b.day - a.day;
    int64_t d = DaysBefore(b.month) + b.day - (DaysBefore(a.month) + a.day);
    if (b.month > 2 && a.month < 3 && LeapYear(b.year)) ++d;
    return d;
}

// --- CTime64 packing -------------------------------------------------------

Fields Unpack64(const CTime64& t) {
    return Fields{t.GetYear(),
                  static_cast<int>(t.GetMonth()),
                  static_cast<int>(t.GetDay()),
                  static_cast<int>(t.GetHour()),
                  static_cast<int>(t.GetMinute()),
                  static_cast<int>(t.GetSecond()),
                  static_cast<int>(t.GetMilliseconds())};
}

long Pack64(int64_t year, int64_t month, int64_t day, int64_t hour, int64_t minute,
            int64_t second, int64_t ms) {
    const uint64_t w = (static_cast<uint64_t>(year & 0xFFF) << 52) |
                       (static_cast<uint64_t>(month & 0xF) << 48) |
                       (static_cast<uint64_t>(day & 0x1F) << 43) |
                       (static_cast<uint64_t>(hour & 0x1F) << 38) |
                       (static_cast<uint64_t>(minute & 0x3F) << 32) |
                       (static_cast<uint64_t>(second & 0x3F) << 26) |
                       (static_cast<uint64_t>(ms & 0x3FF) << 16);
    return static_cast<long>(w);
}

long Pack64(const Fields& f) {
    return Pack64(f.year, f.month, f.day, f.hour, f.minute, f.second, f.ms);
}

// --- CTime32 packing -------------------------------------------------------

Fields Unpack32(const CTime32& t) {
    return Fields{t.GetYear(),
                  static_cast<int>(t.GetMonth()),
                  static_cast<int>(t.GetDay()),
                  static_cast<int>(t.GetHour()),
                  static_cast<int>(t.GetMinute()),
                  static_cast<int>(t.GetSecond()),
                  0};
}

uint32_t Pack32(int64_t year, int64_t month, int64_t day, int64_t hour, int64_t minute,
                int64_t second) {
    return (static_cast<uint32_t>((year - CTime32::kBaseYear) & 0x3F) << 26) |
           (static_cast<uint32_t>(month & 0xF) << 22) | (static_cast<uint32_t>(day & 0x1F) << 17) |
           (static_cast<uint32_t>(hour & 0x1F) << 12) |
           (static_cast<uint32_t>(minute & 0x3F) << 6) | static_cast<uint32_t>(second & 0x3F);
}

uint32_t Pack32(const Fields& f) {
    return Pack32(f.year, f.month, f.day, f.hour, f.minute, f.second);
}

// --- stepping, shared by both widths ----------------------------------------

Fields Unpack(const CTime64& t) { return Unpack64(t); }
Fields Unpack(const CTime32& t) { return Unpack32(t); }
long PackAs(const CTime64&, const Fields& f) { return Pack64(f); }
uint32_t PackAs(const CTime32&, const Fields& f) { return Pack32(f); }

// The packed word of t after one step on its fields.
template <class T, class Step>
auto Stepped(const T& t, Step step) {
    Fields f = Unpack(t);
    step(f);
    return PackAs(t, f);
}

}  // namespace

// ---------------------------------------------------------------------------
// CTimeSteps

// Replaces the value with its fields after op.
template <class T, class Op>
void Restep(CTimeSteps<T>& self, Op op) {
    T& t = static_cast<T&>(self);
    t = Stepped(t, op);
}

template <class T>
void CTimeSteps<T>::NextDay() { Restep(*this, StepNextDay); }
template <class T>
void CTimeSteps<T>::LastDay() { Restep(*this, StepLastDay); }
template <class T>
void CTimeSteps<T>::AddDay(int n) { Restep(*this, [n](Fields& f) { AddDays(f, n); }); }
template <class T>
void CTimeSteps<T>::AddHour(int n) { Restep(*this, [n](Fields& f) { AddHours(f, n); }); }
template <class T>
void CTimeSteps<T>::AddMinute(int n) { Restep(*this, [n](Fields& f) { AddMinutes(f, n); }); }
template <class T>
void CTimeSteps<T>::AddSecond(int n) { Restep(*this, [n](Fields& f) { AddSeconds(f, n); }); }

template <class T>
bool CTimeSteps<T>::IsWeekend() const {
    const unsigned w = static_cast<const T&>(*this).GetWeekDay();
    return w == 0 || w == 6;
}

template class CTimeSteps<CTime32>;
template class CTimeSteps<CTime64>;

// ---------------------------------------------------------------------------
// CTimeBase

bool CTimeBase::IsLeap(unsigned year) { return LeapYear(year); }

unsigned CTimeBase::DaysInMonth(unsigned year, unsigned month) {
    return month >= 1 && month <= 12 ? static_cast<unsigned>(MonthLength(year, static_cast<int>(month)))
                                     : 0;
}

unsigned CTimeBase::WeekDay(unsigned year, unsigned month, unsigned day) {
    int64_t y = year;
    int64_t m = month;
    if (m < 3) {
        y -= 1;
        m += 10;
    } else {
        m -= 2;
    }
    const int64_t c = y / 100;
    const int64_t r = y % 100;
    const int64_t w = (13 * m - 1) / 5 + static_cast<int64_t>(day) + r + r / 4 + c / 4 - 2 * c;
    return static_cast<unsigned>(((w % 7) + 7) % 7);
}

// ---------------------------------------------------------------------------
// CTime64

CTime64::CTime64(const CTime32& t)
    : m_time(Pack64(t.GetYear(), t.GetMonth(), t.GetDay(), t.GetHour(), t.GetMinute(),
                    t.GetSecond(), 0)) {}

CTime64::CTime64(unsigned year, unsigned month, unsigned day)
    : m_time(Pack64(year, month, day, 0, 0, 0, 0)) {}

CTime64::CTime64(unsigned year, unsigned month, unsigned day, unsigned hour, unsigned minute,
                 unsigned second, unsigned milliseconds)
    : m_time(Pack64(year, month, day, hour, minute, second, milliseconds)) {}

CTime64::CTime64(const CTime64& t, int hours) {
    Fields f = Unpack64(t);
    int64_t h = static_cast<int64_t>(f.hour) + hours;
    if (h >= 24) {
        StepNextDay(f);
        h -= 24;
    } else if (h < 0) {
        StepLastDay(f);
        h += 24;
    }
    f.hour = static_cast<int>(h & 0x1F);
    m_time = Pack64(f);
}

CTime64& CTime64::operator=(const CTime32& t) {
    m_time = CTime64(t).m_time;
    return *this;
}

bool CTime64::IsValid() const { return ValidFields(Unpack64(*this)); }

int64_t CTime64::GetSpanSeconds(const CTime64& other) const {
    const Fields a = Unpack64(*this);
    const Fields b = Unpack64(other);
    if (*this > other) return DaysLater(a, b) * 86400 + SecondsOfDay(a) - SecondsOfDay(b);
    if (*this < other) return -(DaysEarlier(a, b) * 86400) - SecondsOfDay(b) + SecondsOfDay(a);
    return 0;
}

int64_t CTime64::GetSpanMilliseconds(const CTime64& other) const {
    return GetSpanSeconds(other) * 1000 + static_cast<int64_t>(GetMilliseconds()) -
           static_cast<int64_t>(other.GetMilliseconds());
}

// ---------------------------------------------------------------------------
// CTime32

CTime32::CTime32(const CTime64& t)
    : m_time(Pack32(t.GetYear(), t.GetMonth(), t.GetDay(), t.GetHour(), t.GetMinute(),
                    t.GetSecond())) {}

CTime32::CTime32(unsigned year, unsigned month, unsigned day)
    : m_time(Pack32(year, month, day, 0, 0, 0)) {}

CTime32::CTime32(unsigned year, unsigned month, unsigned day, unsigned hour, unsigned minute,
                 unsigned second)
    : m_time(Pack32(year, month, day, hour, minute, second)) {}

CTime32& CTime32::operator=(const CTime64& t) {
    m_time = CTime32(t).m_time;
    return *this;
}

bool CTime32::IsValid() const { return ValidFields(Unpack32(*this)); }

int64_t CTime32::GetSpanSeconds(const CTime32& other) const {
    const Fields a = Unpack32(*this);
    const Fields b = Unpack32(other);
    if (*this < other) return -other.GetSpanSeconds(*this);
    return DaysLater(a, b) * 86400 + SecondsOfDay(a) - SecondsOfDay(b);
}
