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

inline uint64_t Mix(uint64_t h, uint64_t v) {
    h = (h ^ v) * kMul;
    return h ^ (h >> 29);
}

}  // namespace

uint64_t CInstrumentIndex::Head(std::string_view key) {
    // Words are read only within the key: a short key is read as two
    // overlapping halves, which OR together to the zero-padded bytes.
    const char* p = key.data();
    const size_t n = key.size();
    if (n >= 8) return Load64(p);
    if (n >= 4) return Load32(p) | (Load32(p + n - 4) << (8 * (n - 4)));
    uint64_t v = 0;
    for (size_t i = 0; i < n; ++i) v |= static_cast<uint64_t>(static_cast<unsigned char>(p[i])) << (8 * i);
    return v;
}

uint64_t CInstrumentIndex::Hash(std::string_view key) { return HashWithHead(key, Head(key)); }

uint64_t CInstrumentIndex::HashWithHead(std::string_view key, uint64_t head) {
    const char* p = key.data();
    const size_t n = key.size();
    uint64_t h = Mix(n * kMul, head);
    size_t i = 8;
    for (; i + 8 <= n; i += 8) h = Mix(h, Load64(p + i));
    if (i < n) h = Mix(h, Load64(p + n - 8));   // the tail, as the key's last eight bytes
    return h * kMul;
}

bool CInstrumentIndex::Matches(const Slot& s, uint32_t hash, uint64_t head, std::string_view key) {
    if (s.hash != hash || s.length != key.size() || s.head != head) return false;
    return key.size() <= 8 || std::memcmp(s.key + 8, key.data() + 8, key.size() - 8) == 0;
}

CQxInstrument* CInstrumentIndex::Find(std::string_view code) const {
    if (m_size == 0) return nullptr;
    const uint64_t head = Head(code);
    const uint64_t h = HashWithHead(code, head);
    const size_t mask = m_slots.size() - 1;
    for (size_t i = static_cast<size_t>(h >> m_shift);; i = (i + 1) & mask) {
        const Slot& s = m_slots[i];
        if (!s.key) return nullptr;
        if (Matches(s, static_cast<uint32_t>(h), head, code)) return s.inst;
    }
}

void CInstrumentIndex::Insert(std::string_view key, CQxInstrument* inst) {
    if ((m_size + 1) * 2 > m_slots.size()) Grow(m_slots.empty() ? 16 : m_slots.size() * 2);
    const uint64_t head = Head(key);
    const uint64_t h = HashWithHead(key, head);
    const size_t mask = m_slots.size() - 1;
    for (size_t i = static_cast<size_t>(h >> m_shift);; i = (i + 1) & mask) {
        Slot& s = m_slots[i];
        if (!s.key) {
            s = Slot{key.data(), inst, static_cast<uint32_t>(h), static_cast<uint32_t>(key.size()), head};
            ++m_size;
            return;
        }
        if (Matches(s, static_cast<uint32_t>(h), head, key)) {
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
    m_slots.assign(capacity, Slot{nullptr, nullptr, 0, 0, 0});
    unsigned bits = 0;
    while ((size_t{1} << bits) < capacity) ++bits;
    m_shift = 64 - bits;
    m_size = 0;
    for (const Slot& s : old)
        if (s.key) Insert(std::string_view(s.key, s.length), s.inst);
}
