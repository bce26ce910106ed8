#include "base/Md5.h"

#include <cstring>

namespace {

// 0x80 followed by zeros: the padding that starts every message tail.
const unsigned char MD5_PADDING[64] = {0x80};

// T[i] = floor(2^32 * |sin(i + 1)|).
const uint32_t kT[64] = {
    0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613, 0xfd469501,
    0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193, 0xa679438e, 0x49b40821,
    0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d, 0x02441453, 0xd8a1e681, 0xe7d3fbc8,
    0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed, 0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a,
    0xfffa3942, 0x8771f681, 0x6d9d6122, 0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70,
    0x289b7ec6, 0xeaa127fa, 0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665,
    0xf4292244, 0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
    0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb, 0xeb86d391,
};

// Left-rotation amounts, four per round.
const int kS[4][4] = {{7, 12, 17, 22}, {5, 9, 14, 20}, {4, 11, 16, 23}, {6, 10, 15, 21}};

inline uint32_t Rotl(uint32_t x, int n) { return (x << n) | (x >> (32 - n)); }

// Little-endian bytes to words, independent of the host order.
void BytesToWords(const unsigned char* src, uint32_t* dst, int words) {
    for (int w = 0; w < words; ++w, src += 4) {
        dst[w] = uint32_t(src[0]) | (uint32_t(src[1]) << 8) | (uint32_t(src[2]) << 16) |
                 (uint32_t(src[3]) << 24);
    }
}

void WordsToBytes(const uint32_t* src, unsigned char* dst, int words) {
    for (int w = 0; w < words; ++w, dst += 4) {
        dst[0] = static_cast<unsigned char>(src[w]);
        dst[1] = static_cast<unsigned char>(src[w] >> 8);
        dst[2] = static_cast<unsigned char>(src[w] >> 16);
        dst[3] = static_cast<unsigned char>(src[w] >> 24);
    }
}

}  // namespace

void MD5Init(MD5_CTX* ctx, unsigned long pseudoRandomNumber) {
    const uint32_t n = static_cast<uint32_t>(pseudoRandomNumber);
    ctx->i[0] = ctx->i[1] = 0;
    ctx->buf[0] = 0x67452301u + 11u * n;
    ctx->buf[1] = 0xEFCDAB89u + 71u * n;
    ctx->buf[2] = 0x98BADCFEu + 37u * n;
    ctx->buf[3] = 0x10325476u + 97u * n;
    std::memset(ctx->in, 0, sizeof ctx->in);
    std::memset(ctx->digest, 0, sizeof ctx->digest);
}

void MD5Update(MD5_CTX* ctx, const unsigned char* data, unsigned int len) {
    unsigned int used = (ctx->i[0] >> 3) & 0x3F;

    // 64-bit bit count kept as two words.
    const uint32_t bitsLow = static_cast<uint32_t>(len) << 3;
    if (ctx->i[0] + bitsLow < ctx->i[0]) ctx->i[1]++;
    ctx->i[0] += bitsLow;
    ctx->i[1] += static_cast<uint32_t>(len) >> 29;

    while (len > 0) {
        unsigned int take = 64 - used;
        if (take > len) take = len;
        std::memcpy(ctx->in + used, data, take);
        used += take;
        data += take;
        len -= take;
        if (used == 64) {
            uint32_t block[16];
            BytesToWords(ctx->in, block, 16);
            MD5_Transform(ctx->buf, block);
            used = 0;
        }
    }
}

void MD5Final(MD5_CTX* ctx) {
    uint32_t bits[2] = {ctx->i[0], ctx->i[1]};
    unsigned int used = (ctx->i[0] >> 3) & 0x3F;
    unsigned int padLen = (used < 56) ? (56 - used) : (120 - used);
    MD5Update(ctx, MD5_PADDING, padLen);

    unsigned char count[8];
    WordsToBytes(bits, count, 2);
    MD5Update(ctx, count, 8);

    WordsToBytes(ctx->buf, ctx->digest, 4);
}

void MD5_Transform(uint32_t buf[4], const uint32_t in[16]) {
    uint32_t a = buf[0], b = buf[1], c = buf[2], d = buf[3];
    for (int step = 0; step < 64; ++step) {
        const int round = step / 16;
        uint32_t f;
        int g;
        switch (round) {
        case 0:
            f = (b & c) | (~b & d);
            g = step;
            break;
        case 1:
            f = (d & b) | (~d & c);
            g = (5 * step + 1) % 16;
            break;
        case 2:
            f = b ^ c ^ d;
            g = (3 * step + 5) % 16;
            break;
        default:
            f = c ^ (b | ~d);
            g = (7 * step) % 16;
            break;
        }
        const uint32_t next = b + Rotl(a + f + kT[step] + in[g], kS[round][step % 4]);
        a = d;
        d = c;
        c = b;
        b = next;
    }
    buf[0] += a;
    buf[1] += b;
    buf[2] += c;
    buf[3] += d;
}
