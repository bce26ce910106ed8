#include "base/UnicodeConverter.h"

#include <cstring>

namespace {

const unsigned int kUtf8Limit[6] = {0x80, 0x800, 0x10000, 0x200000, 0x4000000, 0x80000000};
const unsigned char kUtf8Lead[6] = {0x00, 0xC0, 0xE0, 0xF0, 0xF8, 0xFC};

bool IsHighSurrogate(unsigned int u) { return u >= 0xD800 && u <= 0xDBFF; }
bool IsLowSurrogate(unsigned int u) { return u >= 0xDC00 && u <= 0xDFFF; }

unsigned int CombineSurrogates(unsigned int hi, unsigned int lo) {
    return (((hi & 0x3FF) + 0x40) << 10) + (lo & 0x3FF);
}

}  // namespace

int CUnicodeConverter::UCS4_To_UTF8(unsigned int cp, char* out) {
    int i = 0;
    while (i < 6 && cp >= kUtf8Limit[i]) ++i;
    if (i == 6) return 0;
    if (out) {
        for (int k = i; k > 0; --k) {
            out[k] = static_cast<char>((cp & 0x3F) | 0x80);
            cp >>= 6;
        }
        out[0] = static_cast<char>(cp | kUtf8Lead[i]);
    }
    return i + 1;
}

int CUnicodeConverter::UTF16_To_UCS4(const unsigned short* in, unsigned int& cp) {
    if (!in) return 0;
    unsigned int u = in[0];
    if (IsLowSurrogate(u)) return 0;
    if (!IsHighSurrogate(u)) {
        cp = u;
        return 1;
    }
    unsigned int lo = in[1];
    if (!IsLowSurrogate(lo)) return 0;
    cp = CombineSurrogates(u, lo);
    return 2;
}

int CUnicodeConverter::UTF16Str_To_UTF8Str(const unsigned short* in, char* out) {
    if (!in) return 0;
    int total = 0;
    while (*in) {
        unsigned int cp = 0;
        int used = UTF16_To_UCS4(in, cp);
        if (used == 0) return 0;
        int len = UCS4_To_UTF8(cp, out);
        if (len == 0) return 0;
        in += used;
        if (out) out += len;
        total += len;
    }
    if (out) *out = 0;
    return total;
}

int CUnicodeConverter::UCS4_To_UTF16(unsigned int cp, unsigned short* out) {
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    if (cp < 0x10000) {
        if (out) out[0] = static_cast<unsigned short>(cp);
        return 1;
    }
    cp -= 0x10000;
    if (out) {
        out[0] = static_cast<unsigned short>(0xD800 | (cp >> 10));
        out[1] = static_cast<unsigned short>(0xDC00 | (cp & 0x3FF));
    }
    return 2;
}

int CUnicodeConverter::UTF16StrLen(const unsigned short* in) {
    if (!in) return 0;
    int n = 0;
    while (in[n]) ++n;
    return n;
}

size_t CUnicodeConverter::UTF16Bytes_To_UTF8(const char* in, size_t units, char* out, size_t cap) {
    if (!in) return 0;
    auto unitAt = [&](size_t k) -> unsigned int {
        if (k >= units) return 0;
        unsigned short u;
        std::memcpy(&u, in + 2 * k, sizeof u);
        return u;
    };
    size_t stored = 0;
    size_t k = 0;
    while (stored < cap) {
        unsigned int u = unitAt(k);
        if (u == 0) break;
        unsigned int cp;
        if (IsLowSurrogate(u)) break;
        if (IsHighSurrogate(u)) {
            unsigned int lo = unitAt(k + 1);
            if (!IsLowSurrogate(lo)) break;
            cp = CombineSurrogates(u, lo);
            k += 2;
        } else {
            cp = u;
            k += 1;
        }
        char bytes[6];
        int len = UCS4_To_UTF8(cp, bytes);
        for (int b = 0; b < len && stored < cap; ++b) out[stored++] = bytes[b];
    }
    return stored;
}
