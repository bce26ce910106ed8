// The hashed instrument index: every length class of key (short, exactly
// one word, longer than the inline head), keys that share their first eight
// bytes, growth past many doublings, replacement and clearing.
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "dc/InstrumentIndex.h"
#include "dc/MarketModel.h"

namespace {

// Distinct fake instrument addresses; the index never dereferences them.
CQxInstrument* Fake(size_t i) { return reinterpret_cast<CQxInstrument*>(0x1000 + 16 * i); }

}  // namespace

TEST(InstrumentIndex, FindsEveryKeyOfEveryLengthAndNothingElse) {
    // Keys of 0 to 32 characters; many share their first eight bytes, so
    // the part past the inline head decides.
    std::vector<std::string> keys;
    for (size_t n = 0; n <= 32; ++n) {
        keys.push_back(std::string(n, 'a'));
        if (n > 0) keys.push_back(std::string(n - 1, 'a') + 'b');
        if (n > 8) keys.push_back("cu2501-C" + std::string(n - 8, '7'));
        if (n > 9) keys.push_back("cu2501-C" + std::string(n - 9, '7') + '8');
    }
    std::set<std::string> unique(keys.begin(), keys.end());
    keys.assign(unique.begin(), unique.end());

    CInstrumentIndex index;
    EXPECT_EQ(nullptr, index.Find("a"));
    for (size_t i = 0; i < keys.size(); ++i) index.Insert(keys[i], Fake(i));
    EXPECT_EQ(keys.size(), index.Size());
    for (size_t i = 0; i < keys.size(); ++i) EXPECT_EQ(Fake(i), index.Find(keys[i])) << '"' << keys[i] << '"';

    // Near misses: one character more, one less, the last one changed.
    for (const std::string& k : keys) {
        std::string longer = k + 'z';
        if (!unique.count(longer)) {
            EXPECT_EQ(nullptr, index.Find(longer)) << longer;
        }
        if (k.empty()) continue;
        std::string changed = k;
        changed.back() = 'q';
        if (!unique.count(changed)) {
            EXPECT_EQ(nullptr, index.Find(changed)) << changed;
        }
    }
}

TEST(InstrumentIndex, KeysAreComparedOnlyWithinTheirLength) {
    // A view into a longer buffer: bytes after the view must not count.
    const char buffer[] = "rb2505XXXXXXXXXXXXXXXXXXXXXXX";
    CInstrumentIndex index;
    index.Insert(std::string_view(buffer, 6), Fake(1));
    EXPECT_EQ(Fake(1), index.Find("rb2505"));
    EXPECT_EQ(CInstrumentIndex::Hash("rb2505"), CInstrumentIndex::Hash(std::string_view(buffer, 6)));
    const std::string longKey = "SR505C5000-extra-long";
    const std::string padded = longKey + "garbage";
    index.Insert(std::string_view(padded.data(), longKey.size()), Fake(2));
    EXPECT_EQ(Fake(2), index.Find(longKey));
}

TEST(InstrumentIndex, GrowsReplacesAndClears) {
    std::vector<std::string> keys;
    for (int i = 0; i < 20000; ++i) keys.push_back("bx" + std::to_string(i));
    CInstrumentIndex index;
    index.Reserve(10);
    for (size_t i = 0; i < keys.size(); ++i) index.Insert(keys[i], Fake(i));
    EXPECT_EQ(keys.size(), index.Size());
    for (size_t i = 0; i < keys.size(); i += 997) EXPECT_EQ(Fake(i), index.Find(keys[i]));
    EXPECT_EQ(nullptr, index.Find("bx20000"));

    index.Insert(keys[5], Fake(99999));
    EXPECT_EQ(keys.size(), index.Size());
    EXPECT_EQ(Fake(99999), index.Find(keys[5]));

    index.Clear();
    EXPECT_EQ(0u, index.Size());
    EXPECT_EQ(nullptr, index.Find(keys[5]));
    index.Insert(keys[7], Fake(7));
    EXPECT_EQ(Fake(7), index.Find(keys[7]));
}

TEST(InstrumentIndex, SimilarCodesSpreadOverTheTable) {
    // Codes that differ in one digit must not pile into a few places: the
    // top bits (which pick the slot) of 4096 such codes take many values.
    std::set<uint64_t> top;
    for (int i = 0; i < 4096; ++i) {
        char code[16];
        std::snprintf(code, sizeof(code), "bx%05d", i);
        top.insert(CInstrumentIndex::Hash(code) >> 52);   // 4096 possible values
    }
    EXPECT_GT(top.size(), 2000u);
}
