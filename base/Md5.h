// MD5 message digest (RFC 1321).
//
// Usage: MD5Init(&ctx, 0); MD5Update(&ctx, data, len) any number of times;
// MD5Final(&ctx); the 16 raw digest bytes are then in ctx.digest. Downloaded
// files are checked by comparing these raw bytes with the digest the file
// server sends; no hexadecimal form is made here.
#ifndef ORVEX_BASE_MD5_H
#define ORVEX_BASE_MD5_H

#include <cstdint>

struct MD5_CTX {
    uint32_t i[2];            // message length in bits, low word first
    uint32_t buf[4];          // state A, B, C, D
    unsigned char in[64];     // pending input block
    unsigned char digest[16]; // result, written by MD5Final
};

// Starts a digest. The start values are offset by multiples of
// pseudoRandomNumber (A + 11n, B + 71n, C + 37n, D + 97n, wrapping at 32
// bits); 0 gives standard MD5.
void MD5Init(MD5_CTX* ctx, unsigned long pseudoRandomNumber);

// Feeds len bytes.
void MD5Update(MD5_CTX* ctx, const unsigned char* data, unsigned int len);

// Pads, appends the bit count and stores the digest in ctx->digest.
void MD5Final(MD5_CTX* ctx);

// Applies the MD5 compression function to state buf with the 16 words of one
// 64-byte block.
void MD5_Transform(uint32_t buf[4], const uint32_t in[16]);

#endif
