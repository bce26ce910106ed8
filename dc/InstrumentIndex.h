// Hashed index of a market's instruments by market code, for the look-up
// made on every pushed and snapshot row.
//
// Open addressing with linear probing over a power-of-two table kept at most
// half full, so a look-up is one multiply-mix of the code's bytes and, as a
// rule, one probe. A slot holds the first eight bytes of its key, so a code
// of up to eight characters (every futures code) is matched without reading
// the key's own memory. The index stores views of keys it does not own: the
// caller keeps each key's bytes alive and unchanged while it is indexed
// (CQxMarket indexes the keys of its own instrument map, whose nodes never
// move). Entries are only added or all cleared. Not copyable: a copy would
// view the source's keys. Not thread-safe.
#ifndef ORVEX_DC_INSTRUMENT_INDEX_H
#define ORVEX_DC_INSTRUMENT_INDEX_H

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

class CQxInstrument;

class CInstrumentIndex {
public:
    CInstrumentIndex() = default;
    CInstrumentIndex(const CInstrumentIndex&) = delete;
    CInstrumentIndex& operator=(const CInstrumentIndex&) = delete;

    // The instrument indexed under code, or null.
    CQxInstrument* Find(std::string_view code) const;
    // Indexes inst under key; a key already present is pointed at inst.
    void Insert(std::string_view key, CQxInstrument* inst);
    // Makes room for n keys without growing on the way.
    void Reserve(size_t n);
    void Clear();
    size_t Size() const { return m_size; }

    // The hash the table places a key by (exposed for tests of spread).
    static uint64_t Hash(std::string_view key);

private:
    struct Slot {
        const char* key;       // null: empty slot
        CQxInstrument* inst;
        uint32_t hash;         // low half of the key's hash
        uint32_t length;
        uint64_t head;         // first eight bytes of the key, zero-padded
    };
    static uint64_t Head(std::string_view key);
    static uint64_t HashWithHead(std::string_view key, uint64_t head);
    static bool Matches(const Slot& s, uint32_t hash, uint64_t head, std::string_view key);
    void Grow(size_t capacity);

    std::vector<Slot> m_slots;
    size_t m_size = 0;
    unsigned m_shift = 64;     // 64 - log2(capacity)
};

#endif
