#include "dc/WireText.h"

#include <cstdarg>
#include <cstdio>

namespace dcwire {

namespace {

// "00" to "99".
struct DigitPairs {
    char text[200];
    constexpr DigitPairs() : text() {
        for (int i = 0; i < 100; ++i) {
            text[2 * i] = static_cast<char>('0' + i / 10);
            text[2 * i + 1] = static_cast<char>('0' + i % 10);
        }
    }
};
constexpr DigitPairs kDigitPairs;

// snprintf(dst, size, "%d", value) written out by hand, for the quote path:
// at most size - 1 characters and a NUL, nothing written after the NUL.
}  // namespace

void PrintInt(char* dst, size_t size, int value) {
    if (value >= 10000000 && value <= 99999999 && size >= 9) {
        // A YYYYMMDD date: eight digits, two at a time.
        const unsigned hi = static_cast<unsigned>(value) / 10000, lo = static_cast<unsigned>(value) % 10000;
        std::memcpy(dst, kDigitPairs.text + 2 * (hi / 100), 2);
        std::memcpy(dst + 2, kDigitPairs.text + 2 * (hi % 100), 2);
        std::memcpy(dst + 4, kDigitPairs.text + 2 * (lo / 100), 2);
        std::memcpy(dst + 6, kDigitPairs.text + 2 * (lo % 100), 2);
        dst[8] = '\0';
        return;
    }
    unsigned u = value < 0 ? 0u - static_cast<unsigned>(value) : static_cast<unsigned>(value);
    size_t n = value < 0 ? 2 : 1;
    for (unsigned rest = u; rest >= 10; rest /= 10) ++n;
    if (n <= size - 1) {
        // Fits: the digits go straight into place, last first.
        char* p = dst + n;
        *p = '\0';
        do {
            *--p = static_cast<char>('0' + u % 10);
            u /= 10;
        } while (u != 0);
        if (value < 0) *--p = '-';
        return;
    }
    char text[12];
    char* const end = text + sizeof(text);
    char* p = end;
    do {
        *--p = static_cast<char>('0' + u % 10);
        u /= 10;
    } while (u != 0);
    if (value < 0) *--p = '-';
    n = size - 1;
    std::memcpy(dst, p, n);
    dst[n] = '\0';
}

void PrintField(char* dst, size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vsnprintf(dst, size, format, args);
    va_end(args);
}

void CopyText(char* dst, size_t room, const char* src, size_t width) {
    size_t n = strnlen(src, width);
    if (n > room - 1) n = room - 1;
    std::memcpy(dst, src, n);
    dst[n] = '\0';
}

}  // namespace dcwire
