// Conversions between UCS-4 code points, UTF-8 and UTF-16.
//
// Code points are unsigned int, UTF-16 units unsigned short, UTF-8 bytes
// char. All members are static and reentrant; errors are reported only as a
// 0 result.
//
// UTF-8 output follows the original (pre-2003) definition, so code points up
// to 0x7FFFFFFF are written in up to six bytes.
#ifndef ORVEX_BASE_UNICODECONVERTER_H
#define ORVEX_BASE_UNICODECONVERTER_H

#include <cstddef>

class CUnicodeConverter {
public:
    // Writes the UTF-8 form of cp to out and returns its length (1 to 6).
    // 0 when cp is 0x80000000 or above. With out null only the length is
    // returned.
    static int UCS4_To_UTF8(unsigned int cp, char* out);

    // Reads one code point from in: one unit, or a high surrogate followed by
    // a low surrogate. Returns the units consumed (1 or 2); 0 for a null
    // pointer, a low surrogate first, or a high surrogate without a low one.
    static int UTF16_To_UCS4(const unsigned short* in, unsigned int& cp);

    // Converts the zero-terminated UTF-16 text in into UTF-8 and returns the
    // bytes produced, without the terminating 0 that is appended when out is
    // given. out may be null to measure. On an invalid surrogate the result
    // is 0 and out holds, unterminated, what was written before it.
    static int UTF16Str_To_UTF8Str(const unsigned short* in, char* out);

    // Writes cp as UTF-16 (1 or 2 units) and returns the units written; 0 for
    // a code point above 0x10FFFF or a surrogate value. out may be null.
    static int UCS4_To_UTF16(unsigned int cp, unsigned short* out);

    // Units before the terminating 0 unit; 0 for a null pointer.
    static int UTF16StrLen(const unsigned short* in);

    // Bounded form used on received data: reads at most `units` 16-bit units
    // in machine byte order from raw bytes of any alignment, with the same
    // rules as UTF16Str_To_UTF8Str (stops at a 0 unit or on an invalid
    // surrogate, keeping what came before). A position at or past `units`
    // reads as 0. At most `cap` bytes are stored in out, no terminator is
    // added; a longer result is cut at `cap` bytes (possibly inside a
    // character). Returns the bytes stored.
    static size_t UTF16Bytes_To_UTF8(const char* in, size_t units, char* out, size_t cap);
};

#endif
