// Small helpers shared by the quote-server handlers: unaligned little-endian
// reads from a body, and the text fields of the records they fill.
#ifndef ORVEX_DC_WIRE_TEXT_H
#define ORVEX_DC_WIRE_TEXT_H

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace dcwire {

// A value of type T at p, in the machine's (little-endian) order.
template <class T>
inline T Rd(const char* p) {
    T v;
    std::memcpy(&v, p, sizeof(v));
    return v;
}

// snprintf into a fixed-width field; text that does not fit is cut.
void PrintField(char* dst, size_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));

// "00" to "99", for writing numbers two digits at a time.
struct DigitPairs {
    char text[200];
    constexpr DigitPairs() : text() {
        for (int i = 0; i < 100; ++i) {
            text[2 * i] = static_cast<char>('0' + i / 10);
            text[2 * i + 1] = static_cast<char>('0' + i % 10);
        }
    }
};
inline constexpr DigitPairs kDigitPairs{};

inline void PutPair(char* dst, unsigned v) { std::memcpy(dst, kDigitPairs.text + 2 * v, 2); }

// snprintf(dst, size, "%d", value) written out by hand for the quote path:
// at most size - 1 characters and a NUL, nothing written after the NUL.
// A YYYYMMDD date, printed for every row, is written inline.
void PrintIntGeneral(char* dst, size_t size, int value);
inline void PrintInt(char* dst, size_t size, int value) {
    if (value >= 10000000 && value <= 99999999 && size >= 9) {
        const unsigned hi = static_cast<unsigned>(value) / 10000, lo = static_cast<unsigned>(value) % 10000;
        PutPair(dst, hi / 100);
        PutPair(dst + 2, hi % 100);
        PutPair(dst + 4, lo / 100);
        PutPair(dst + 6, lo % 100);
        dst[8] = '\0';
        return;
    }
    PrintIntGeneral(dst, size, value);
}

// "HH:MM:SS" of a packed quote time whose hour is below 100, into a 9-byte
// field; false, with nothing written, for a longer hour.
inline bool FormatShortTime(char* out9, uint32_t packed) {
    const unsigned h = packed >> 22;
    if (h >= 100) return false;
    PutPair(out9, h);
    out9[2] = ':';
    PutPair(out9 + 3, (packed >> 16) & 0x3F);
    out9[5] = ':';
    PutPair(out9 + 6, (packed >> 10) & 0x3F);
    out9[8] = '\0';
    return true;
}

// Copies at most `width` bytes of a fixed-width server text into a
// NUL-terminated field of `room` bytes.
void CopyText(char* dst, size_t room, const char* src, size_t width);

}  // namespace dcwire

#endif
