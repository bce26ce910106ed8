#include "journal/JournalFormat.h"

#include <immintrin.h>

namespace orvex {
namespace journal {

namespace {

constexpr uint64_t kMul = 0x9E3779B97F4A7C15ull;

inline uint64_t Load64(const unsigned char* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}
// Without a library call on processors older than the popcnt instruction.
inline size_t PopCount(uint64_t x) {
    x = x - ((x >> 1) & 0x5555555555555555ull);
    x = (x & 0x3333333333333333ull) + ((x >> 2) & 0x3333333333333333ull);
    x = (x + (x >> 4)) & 0x0F0F0F0F0F0F0F0Full;
    return static_cast<size_t>((x * 0x0101010101010101ull) >> 56);
}
inline uint64_t Rotl(uint64_t v, int r) { return (v << r) | (v >> (64 - r)); }
inline uint64_t Mix(uint64_t h, uint64_t w) { return Rotl((h ^ w) * kMul, 29); }

uint32_t Finish(uint64_t a, uint64_t b, uint64_t c, uint64_t d, size_t size) {
    uint64_t x = a ^ Rotl(b, 17) ^ Rotl(c, 31) ^ Rotl(d, 47) ^ (static_cast<uint64_t>(size) * kMul);
    x ^= x >> 31;
    x *= 0xBF58476D1CE4E5B9ull;
    x ^= x >> 29;
    x *= 0x94D049BB133111EBull;
    x ^= x >> 32;
    return static_cast<uint32_t>(x);
}

void Put16(unsigned char* p, uint16_t v) { std::memcpy(p, &v, 2); }
uint16_t Get16(const unsigned char* p) {
    uint16_t v;
    std::memcpy(&v, p, 2);
    return v;
}

}  // namespace

namespace {

size_t EncodeDepthDeltaPortable(unsigned char* base, const unsigned char* now, unsigned char* out) {
    // First which words changed, without branches (that differs from one
    // record to the next), then only those are visited.
    uint64_t mask = 0;
    for (size_t i = 0; i < kDepthWords; ++i)
        mask |= static_cast<uint64_t>(Load64(base + 8 * i) != Load64(now + 8 * i)) << i;
    std::memcpy(out, &mask, 8);
    size_t n = 8;
    for (uint64_t m = mask; m; m &= m - 1) {
        const size_t i = static_cast<size_t>(__builtin_ctzll(m));
        const uint64_t x = Load64(base + 8 * i) ^ Load64(now + 8 * i);
        std::memcpy(out + n, &x, 8);
        n += 8;
    }
    std::memcpy(base, now, 8 * kDepthWords);
    return n;
}

// The same four words at a time: the changes, the mask and the new base in
// one pass over the record.
__attribute__((target("avx2"))) size_t EncodeDepthDeltaAvx2(unsigned char* base, const unsigned char* now,
                                                              unsigned char* out) {
    alignas(32) uint64_t x[kDepthWords + 1];
    uint64_t mask = 0;
    size_t i = 0;
    const __m256i zero = _mm256_setzero_si256();
    for (; i + 4 <= kDepthWords; i += 4) {
        const __m256i b = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(base + 8 * i));
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(now + 8 * i));
        const __m256i d = _mm256_xor_si256(b, v);
        _mm256_store_si256(reinterpret_cast<__m256i*>(x + i), d);
        _mm256_storeu_si256(reinterpret_cast<__m256i*>(base + 8 * i), v);
        const int same = _mm256_movemask_pd(_mm256_castsi256_pd(_mm256_cmpeq_epi64(d, zero)));
        mask |= static_cast<uint64_t>(~same & 0xF) << i;
    }
    for (; i < kDepthWords; ++i) {
        const uint64_t v = Load64(now + 8 * i);
        x[i] = Load64(base + 8 * i) ^ v;
        std::memcpy(base + 8 * i, &v, 8);
        mask |= static_cast<uint64_t>(x[i] != 0) << i;
    }
    std::memcpy(out, &mask, 8);
    size_t n = 8;
    for (uint64_t m = mask; m; m &= m - 1) {
        std::memcpy(out + n, &x[__builtin_ctzll(m)], 8);
        n += 8;
    }
    return n;
}

using EncodeFn = size_t (*)(unsigned char*, const unsigned char*, unsigned char*);

EncodeFn ChooseEncode() {
    __builtin_cpu_init();
    return __builtin_cpu_supports("avx2") ? EncodeDepthDeltaAvx2 : EncodeDepthDeltaPortable;
}

}  // namespace

size_t EncodeDepthDelta(unsigned char* base, const unsigned char* now, unsigned char* out) {
    static const EncodeFn encode = ChooseEncode();
    return encode(base, now, out);
}

size_t EncodeDepthDeltaWithoutVectors(unsigned char* base, const unsigned char* now, unsigned char* out) {
    return EncodeDepthDeltaPortable(base, now, out);
}

bool ApplyDepthDelta(const unsigned char* delta, size_t size, unsigned char* record) {
    if (size < 8) return false;
    uint64_t mask = Load64(delta);
    if (mask >> kDepthWords) return false;
    if (size != 8 + 8 * PopCount(mask)) return false;
    const unsigned char* v = delta + 8;
    while (mask) {
        const int i = __builtin_ctzll(mask);
        mask &= mask - 1;
        const uint64_t x = Load64(record + 8 * i) ^ Load64(v);
        std::memcpy(record + 8 * i, &x, 8);
        v += 8;
    }
    return true;
}

const char* KindName(uint16_t kind) {
    switch (kind) {
        case kDepth: return "depth";
        case kStatus: return "status";
        case kInstrument: return "instrument";
        case kLogin: return "login";
        case kTemplate: return "template";
        case kLinked: return "linked";
        case kLost: return "lost";
        case kTemplates: return "templates";
        default: return nullptr;
    }
}

uint16_t KindOf(const std::string& name) {
    for (uint16_t k = kDepth; k <= kTemplates; ++k)
        if (name == KindName(k)) return k;
    return 0;
}

// Four independent lanes so that the multiplications overlap; the payload's
// last partial word is read zero-padded.
uint32_t EntryCheck(const unsigned char* head16, const unsigned char* payload, size_t size) {
    uint64_t a = 0x243F6A8885A308D3ull ^ Load64(head16);
    uint64_t b = 0x13198A2E03707344ull ^ Load64(head16 + 8);
    uint64_t c = 0xA4093822299F31D0ull, d = 0x082EFA98EC4E6C89ull;
    size_t i = 0;
    for (; i + 32 <= size; i += 32) {
        a = Mix(a, Load64(payload + i));
        b = Mix(b, Load64(payload + i + 8));
        c = Mix(c, Load64(payload + i + 16));
        d = Mix(d, Load64(payload + i + 24));
    }
    // Up to three whole words and a partial one are left; they go to the
    // lanes in turn.
    uint64_t tail = 0;
    const size_t rest = size - i;
    if (rest & 7) std::memcpy(&tail, payload + i + (rest & ~size_t{7}), rest & 7);
    switch (rest >> 3) {
        case 0:
            if (rest) a = Mix(a, tail);
            break;
        case 1:
            a = Mix(a, Load64(payload + i));
            if (rest & 7) b = Mix(b, tail);
            break;
        case 2:
            a = Mix(a, Load64(payload + i));
            b = Mix(b, Load64(payload + i + 8));
            if (rest & 7) c = Mix(c, tail);
            break;
        default:
            a = Mix(a, Load64(payload + i));
            b = Mix(b, Load64(payload + i + 8));
            c = Mix(c, Load64(payload + i + 16));
            if (rest & 7) d = Mix(d, tail);
            break;
    }
    return Finish(a, b, c, d, size);
}

void EncodeHeader(const FileHeader& h, unsigned char out[kHeaderSize]) {
    std::memset(out, 0, kHeaderSize);
    std::memcpy(out, kMagic, 8);
    Put16(out + 8, h.version);
    Put16(out + 10, static_cast<uint16_t>(kHeaderSize));
    Put16(out + 12, static_cast<uint16_t>(kEntryHeadSize));
    Put16(out + 14, h.depthSize);
    Put16(out + 16, h.statusSize);
    Put16(out + 18, h.instrumentSize);
    Put16(out + 20, h.loginSize);
    Put16(out + 22, h.infoSize);
    std::memcpy(out + 24, h.tradingDay, 8);
    std::memcpy(out + 40, &h.startTime, 8);
    const uint32_t check = EntryCheck(out, out + 16, 32);
    std::memcpy(out + 48, &check, 4);
}

bool DecodeHeader(const unsigned char* data, size_t size, FileHeader* h, std::string* error) {
    auto fail = [&](const std::string& why) {
        if (error) *error = why;
        return false;
    };
    if (size < kHeaderSize || std::memcmp(data, kMagic, 8) != 0) return fail("not a tick journal");
    h->version = Get16(data + 8);
    if (h->version != kJournalVersion)
        return fail("journal format version " + std::to_string(h->version) + " is not supported (this build reads version " +
                    std::to_string(kJournalVersion) + ")");
    uint32_t check;
    std::memcpy(&check, data + 48, 4);
    if (check != EntryCheck(data, data + 16, 32) || Get16(data + 10) != kHeaderSize || Get16(data + 12) != kEntryHeadSize)
        return fail("damaged journal header");
    h->depthSize = Get16(data + 14);
    h->statusSize = Get16(data + 16);
    h->instrumentSize = Get16(data + 18);
    h->loginSize = Get16(data + 20);
    h->infoSize = Get16(data + 22);
    const FileHeader ours;
    if (h->depthSize != ours.depthSize || h->statusSize != ours.statusSize || h->instrumentSize != ours.instrumentSize ||
        h->loginSize != ours.loginSize || h->infoSize != ours.infoSize)
        return fail("journal records have other sizes than this build's (depth " + std::to_string(h->depthSize) + ", not " +
                    std::to_string(ours.depthSize) + ")");
    std::memcpy(h->tradingDay, data + 24, 8);
    h->tradingDay[8] = '\0';
    std::memcpy(&h->startTime, data + 40, 8);
    return true;
}

void EncodeEntryHead(const EntryHead& e, unsigned char out[kEntryHeadSize]) {
    std::memcpy(out, &e.size, 4);
    std::memcpy(out + 4, &e.kind, 2);
    std::memcpy(out + 6, &e.aux, 2);
    std::memcpy(out + 8, &e.time, 8);
    std::memset(out + 16, 0, 8);
}

void SealEntry(unsigned char* entry) {
    uint32_t size;
    std::memcpy(&size, entry, 4);
    const uint32_t check = EntryCheck(entry, entry + kEntryHeadSize, size);
    std::memcpy(entry + 16, &check, 4);
}

bool EntryIsWhole(const unsigned char* entry) {
    uint32_t size, check, zero;
    std::memcpy(&size, entry, 4);
    std::memcpy(&check, entry + 16, 4);
    std::memcpy(&zero, entry + 20, 4);
    return zero == 0 && check == EntryCheck(entry, entry + kEntryHeadSize, size);
}

std::string DayFileName(const std::string& dir, const std::string& day) {
    std::string path = dir.empty() ? std::string(".") : dir;
    if (path.back() != '/') path += '/';
    return path + day + kFileSuffix;
}

static_assert(kInstrumentPayload == 328, "instrument answer payload");
static_assert(kLoginPayload == 244, "login answer payload");

}  // namespace journal
}  // namespace orvex
