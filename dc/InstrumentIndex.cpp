#include "dc/InstrumentIndex.h"

#include <cstring>

namespace {

constexpr uint64_t kMul = 0x9E3779B97F4A7C15ull;   // 2^64 / golden ratio, odd

inline uint64_t Load64(const char* p) {
    uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}
inline uint64_t Load32(const char* p) {
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

inline bool SameKey(const char* a, size_t aLength, std::string_view b) {
    return aLength == b.size() && (aLength == 0 || std::memcmp(a, b.data(), aLength) == 0);
}

inline uint64_t Mix(uint64_t h, uint64_t v) {
    h = (h ^ v) * kMul;
    return h ^ (h >> 29);
}

}  // namespace

uint64_t CInstrumentIndex::Hash(std::string_view key) {
    // Every byte of the key is read exactly as part of some word; the tail
    // shorter than a word is read as overlapping words so that no byte
    // outside the key is touched.
    const char* p = key.data();
    const size_t n = key.size();
    uint64_t h = n * kMul;
    size_t i = 0;
    for (; i + 8 <= n; i += 8) h = Mix(h, Load64(p + i));
    const size_t rest = n - i;
    if (rest >= 4) {
        h = Mix(h, Load32(p + i) | (Load32(p + n - 4) << 32));
    } else if (rest > 0) {
        const uint64_t a = static_cast<unsigned char>(p[i]);
        const uint64_t b = static_cast<unsigned char>(p[i + rest / 2]);
        const uint64_t c = static_cast<unsigned char>(p[n - 1]);
        h = Mix(h, a | (b << 8) | (c << 16));
    }
    return h * kMul;
}

CQxInstrument* CInstrumentIndex::Find(std::string_view code) const {
    if (m_size == 0) return nullptr;
    const uint64_t h = Hash(code);
    const size_t mask = m_slots.size() - 1;
    for (size_t i = static_cast<size_t>(h >> m_shift);; i = (i + 1) & mask) {
        const Slot& s = m_slots[i];
        if (!s.key) return nullptr;
        if (s.hash == h && SameKey(s.key, s.length, code))
            return s.inst;
    }
}

void CInstrumentIndex::Insert(std::string_view key, CQxInstrument* inst) {
    if ((m_size + 1) * 2 > m_slots.size()) Grow(m_slots.empty() ? 16 : m_slots.size() * 2);
    const uint64_t h = Hash(key);
    const size_t mask = m_slots.size() - 1;
    for (size_t i = static_cast<size_t>(h >> m_shift);; i = (i + 1) & mask) {
        Slot& s = m_slots[i];
        if (!s.key) {
            s = Slot{h, key.data(), key.size(), inst};
            ++m_size;
            return;
        }
        if (s.hash == h && SameKey(s.key, s.length, key)) {
            s.inst = inst;
            return;
        }
    }
}

void CInstrumentIndex::Reserve(size_t n) {
    size_t capacity = m_slots.empty() ? 16 : m_slots.size();
    while (capacity < n * 2) capacity *= 2;
    if (capacity > m_slots.size()) Grow(capacity);
}

void CInstrumentIndex::Clear() {
    m_slots.clear();
    m_slots.shrink_to_fit();
    m_size = 0;
    m_shift = 64;
}

void CInstrumentIndex::Grow(size_t capacity) {
    std::vector<Slot> old;
    old.swap(m_slots);
    m_slots.assign(capacity, Slot{0, nullptr, 0, nullptr});
    unsigned bits = 0;
    while ((size_t{1} << bits) < capacity) ++bits;
    m_shift = 64 - bits;
    m_size = 0;
    for (const Slot& s : old)
        if (s.key) Insert(std::string_view(s.key, s.length), s.inst);
}
