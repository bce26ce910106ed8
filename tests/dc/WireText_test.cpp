// The hand-written text writers of the quote path against the snprintf
// formats they stand for: every width of integer, every field size, and
// every hour a packed time can carry.
#include <gtest/gtest.h>

#include <climits>
#include <cstdio>
#include <cstring>

#include "dc/DCThread.h"
#include "dc/WireText.h"

namespace {

// The field as snprintf would leave it: the text, its NUL, and the bytes
// after the NUL untouched (they start as 'x').
void ExpectSameAsPrintf(int value, size_t size) {
    char expected[16], actual[16];
    std::memset(expected, 'x', sizeof(expected));
    std::memset(actual, 'x', sizeof(actual));
    std::snprintf(expected, size, "%d", value);
    dcwire::PrintInt(actual, size, value);
    EXPECT_EQ(0, std::memcmp(expected, actual, sizeof(expected))) << value << " in " << size << " bytes";
}

}  // namespace

TEST(WireText, PrintIntWritesWhatSnprintfWrites) {
    const int values[] = {0,        7,        -7,        42,        99999999, 10000000,  9999999,
                          20240102, 19991231, 100000000, -20240102, 123456789, INT_MAX,   INT_MIN,
                          -1,       10,       -10,       1000000,   -99999999, 99999999 + 1};
    for (int v : values)
        for (size_t size = 1; size <= 12; ++size) ExpectSameAsPrintf(v, size);
}

TEST(WireText, PackedTimeWritesWhatSnprintfWrites) {
    // Hours take 10 bits (0-1023), minutes and seconds 6 (0-63); texts of
    // more than eight characters are cut to eight.
    for (unsigned h = 0; h < 1024; ++h) {
        for (unsigned m : {0u, 9u, 10u, 59u, 63u}) {
            for (unsigned s : {0u, 5u, 59u, 60u, 63u}) {
                const uint32_t packed = (h << 22) | (m << 16) | (s << 10) | 999u;
                char expected[12], actual[12];
                std::memset(expected, 'x', sizeof(expected));
                std::memset(actual, 'x', sizeof(actual));
                // snprintf(expected, 9, ...): at most eight characters and a NUL.
                char full[32];
                const int n = std::snprintf(full, sizeof(full), "%02u:%02u:%02u", h, m, s);
                const size_t kept = n < 8 ? static_cast<size_t>(n) : 8;
                std::memcpy(expected, full, kept);
                expected[kept] = '\0';
                CMdEngine::FormatPackedTime(actual, packed);
                ASSERT_EQ(0, std::memcmp(expected, actual, sizeof(expected))) << h << ":" << m << ":" << s;

                // The inline writer takes the two-digit hours and leaves
                // longer ones, untouched, to the general one.
                std::memset(actual, 'x', sizeof(actual));
                const bool written = dcwire::FormatShortTime(actual, packed);
                EXPECT_EQ(h < 100, written);
                if (written) {
                    ASSERT_EQ(0, std::memcmp(expected, actual, sizeof(expected)));
                } else {
                    ASSERT_EQ(std::string(12, 'x'), std::string(actual, 12));
                }
            }
        }
    }
}
