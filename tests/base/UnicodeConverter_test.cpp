#include "base/UnicodeConverter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace {

std::string Utf8(unsigned int cp) {
    char out[8];
    return std::string(out, CUnicodeConverter::UCS4_To_UTF8(cp, out));
}

std::string Convert(const unsigned short* in, int expectLen) {
    char out[32];
    std::memset(out, 'x', sizeof out);
    EXPECT_EQ(CUnicodeConverter::UTF16Str_To_UTF8Str(in, out), expectLen);
    return std::string(out, 8);
}

}  // namespace

TEST(UnicodeConverter, CodePointToUtf8AtEveryLengthBoundary) {
    const struct { unsigned int cp; const char* utf8; } cases[] = {
        {0x7F, "\x7F"},          {0x80, "\xC2\x80"},          {0x7FF, "\xDF\xBF"},
        {0x800, "\xE0\xA0\x80"}, {0xFFFF, "\xEF\xBF\xBF"},    {0x10000, "\xF0\x90\x80\x80"},
        {0x1FFFFF, "\xF7\xBF\xBF\xBF"},          {0x200000, "\xF8\x88\x80\x80\x80"},
        {0x4000000, "\xFC\x84\x80\x80\x80\x80"}, {0x7FFFFFFF, "\xFD\xBF\xBF\xBF\xBF\xBF"},
        {0x80000000u, ""},       {0xFFFFFFFFu, ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(Utf8(c.cp), c.utf8) << std::hex << c.cp;
        EXPECT_EQ(CUnicodeConverter::UCS4_To_UTF8(c.cp, nullptr), int(std::strlen(c.utf8)));
    }
    EXPECT_EQ(Utf8(0), std::string(1, '\0'));
}

TEST(UnicodeConverter, Utf16UnitsAndSurrogates) {
    const struct { unsigned short in[3]; int used; unsigned int cp; } cases[] = {
        {{0x4E2D, 0}, 1, 0x4E2D},         {{0xE000, 0}, 1, 0xE000},
        {{0xD83D, 0xDE00}, 2, 0x1F600},   {{0xDBFF, 0xDFFF}, 2, 0x10FFFF},
        {{0xDC00, 0}, 0, 0},              {{0xD800, 0}, 0, 0},   {{0xD800, 0x41}, 0, 0},
    };
    for (const auto& c : cases) {
        unsigned int cp = 0;
        EXPECT_EQ(CUnicodeConverter::UTF16_To_UCS4(c.in, cp), c.used) << std::hex << c.in[0];
        EXPECT_EQ(cp, c.cp);
    }
    unsigned int cp;
    EXPECT_EQ(CUnicodeConverter::UTF16_To_UCS4(nullptr, cp), 0);
}

TEST(UnicodeConverter, Utf16StringToUtf8String) {
    const unsigned short mixed[] = {'A', 0x4E2D, 0xD83D, 0xDE00, 0};
    EXPECT_EQ(Convert(mixed, 8), std::string("A\xE4\xB8\xAD\xF0\x9F\x98\x80", 8));
    EXPECT_EQ(CUnicodeConverter::UTF16Str_To_UTF8Str(mixed, nullptr), 8);
    const unsigned short empty[] = {0};
    EXPECT_EQ(Convert(empty, 0)[0], '\0');
    // An invalid unit gives 0 and leaves what came before, unterminated.
    const unsigned short lone[] = {0xDC00, 0};
    EXPECT_EQ(Convert(lone, 0), "xxxxxxxx");
    const unsigned short late[] = {'O', 'K', 0xD800, 'x', 0};
    EXPECT_EQ(Convert(late, 0), "OKxxxxxx");
    EXPECT_EQ(CUnicodeConverter::UTF16Str_To_UTF8Str(nullptr, nullptr), 0);
}

TEST(UnicodeConverter, CodePointToUtf16RoundTrip) {
    for (unsigned int cp : {0x41u, 0xFFFDu, 0x10000u, 0x10FFFFu}) {
        unsigned short units[3] = {};
        const int n = CUnicodeConverter::UCS4_To_UTF16(cp, units);
        unsigned int back = 0;
        EXPECT_EQ(CUnicodeConverter::UTF16_To_UCS4(units, back), n);
        EXPECT_EQ(back, cp);
        EXPECT_EQ(CUnicodeConverter::UTF16StrLen(units), n);
    }
    EXPECT_EQ(CUnicodeConverter::UCS4_To_UTF16(0xDC00, nullptr), 0);
    EXPECT_EQ(CUnicodeConverter::UCS4_To_UTF16(0x110000, nullptr), 0);
}

TEST(UnicodeConverter, BoundedConversionFromRawBytes) {
    const unsigned short units[] = {'H', 0x4E2D, 0xD83D};
    char raw[1 + sizeof units];
    std::memcpy(raw + 1, units, sizeof units);  // misaligned on purpose
    char out[16];
    EXPECT_EQ(CUnicodeConverter::UTF16Bytes_To_UTF8(raw + 1, 2, out, sizeof out), 4u);
    EXPECT_EQ(std::string(out, 4), "H\xE4\xB8\xAD");
    // The cap cuts inside a character.
    EXPECT_EQ(CUnicodeConverter::UTF16Bytes_To_UTF8(raw + 1, 2, out, 2), 2u);
    // A high surrogate as the last unit meets the end, which reads as 0.
    EXPECT_EQ(CUnicodeConverter::UTF16Bytes_To_UTF8(raw + 1, 3, out, sizeof out), 4u);
}
