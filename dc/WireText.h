// Small helpers shared by the quote-server handlers: unaligned little-endian
// reads from a body, and the text fields of the records they fill.
#ifndef ORVEX_DC_WIRE_TEXT_H
#define ORVEX_DC_WIRE_TEXT_H

#include <cstddef>
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

// snprintf(dst, size, "%d", value) written out by hand for the quote path:
// at most size - 1 characters and a NUL, nothing written after the NUL.
void PrintInt(char* dst, size_t size, int value);

// Copies at most `width` bytes of a fixed-width server text into a
// NUL-terminated field of `room` bytes.
void CopyText(char* dst, size_t room, const char* src, size_t width);

}  // namespace dcwire

#endif
