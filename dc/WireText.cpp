#include "dc/WireText.h"

#include <cstdarg>
#include <cstdio>

namespace dcwire {

void PrintIntGeneral(char* dst, size_t size, int value) {
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
