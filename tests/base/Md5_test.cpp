#include "base/Md5.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

// Digest of msg fed in pieces cycling through sizes (one piece when empty).
std::string Md5Hex(const std::string& msg, std::vector<unsigned> sizes = {}) {
    MD5_CTX ctx;
    MD5Init(&ctx, 0);
    const unsigned char* p = reinterpret_cast<const unsigned char*>(msg.data());
    size_t pos = 0;
    for (size_t k = 0; pos < msg.size(); ++k) {
        size_t take = sizes.empty() ? msg.size() : sizes[k % sizes.size()];
        if (take > msg.size() - pos) take = msg.size() - pos;
        MD5Update(&ctx, p + pos, static_cast<unsigned>(take));
        pos += take;
    }
    MD5Final(&ctx);
    std::string hex;
    char two[3];
    for (unsigned char b : ctx.digest) {
        std::snprintf(two, sizeof two, "%02x", b);
        hex += two;
    }
    return hex;
}

}  // namespace

TEST(Md5, Rfc1321TestSuite) {
    const char* cases[][2] = {
        {"", "d41d8cd98f00b204e9800998ecf8427e"},
        {"a", "0cc175b9c0f1b6a831c399e269772661"},
        {"abc", "900150983cd24fb0d6963f7d28e17f72"},
        {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
        {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
        {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789",
         "d174ab98d277d9f5a5611c2c9f419d9f"},
        {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
         "57edf4a22be3c955ac49da2e2107b67a"},
    };
    for (const auto& c : cases) EXPECT_EQ(Md5Hex(c[0]), c[1]) << '"' << c[0] << '"';
}

TEST(Md5, PaddingAroundTheEndOfABlock) {
    // Up to 55 bytes the bit count fits the last block; from 56 it needs one more.
    EXPECT_EQ(Md5Hex(std::string(55, 'a')), "ef1772b6dff9a122358552954ad0df65");
    EXPECT_EQ(Md5Hex(std::string(56, 'a')), "3b0c8ac703f828b04c6c197006d17218");
    EXPECT_EQ(Md5Hex(std::string(64, 'a')), "014842d480b571495a4a0363793f7367");
}

TEST(Md5, SplitUpdatesMatchOneCall) {
    std::string msg;
    for (int i = 0; i < 1000; ++i) msg += static_cast<char>(i * 7 + 3);
    const std::string whole = Md5Hex(msg);
    for (const auto& sizes : std::vector<std::vector<unsigned>>{{1}, {63, 1}, {64}, {65, 0, 127}, {55, 9}})
        EXPECT_EQ(Md5Hex(msg, sizes), whole) << sizes[0];
}

TEST(Md5, BitCountCarriesIntoTheHighWord) {
    MD5_CTX ctx;
    MD5Init(&ctx, 0);
    ctx.i[0] = 0xFFFFFFF8u;
    const unsigned char two[2] = {'x', 'y'};
    MD5Update(&ctx, two, 2);
    EXPECT_EQ(ctx.i[0], 8u);
    EXPECT_EQ(ctx.i[1], 1u);
}

TEST(Md5, SeedShiftsTheStartValues) {
    MD5_CTX ctx;
    MD5Init(&ctx, 1);
    EXPECT_EQ(ctx.buf[0], 0x67452301u + 11u);
    EXPECT_EQ(ctx.buf[1], 0xEFCDAB89u + 71u);
    EXPECT_EQ(ctx.buf[2], 0x98BADCFEu + 37u);
    EXPECT_EQ(ctx.buf[3], 0x10325476u + 97u);
    MD5Init(&ctx, 0x10000000ul);  // wraps at 32 bits
    EXPECT_EQ(ctx.buf[0], 0x67452301u + 0xB0000000u);
}
