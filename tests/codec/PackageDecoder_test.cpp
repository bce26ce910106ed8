#include "codec/PackageDecoder.h"
#include "codec/PackageBody.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <string>
#include <vector>

namespace {

// 100: every type, no mask. 101: package mask, arrays between the single
// fields. 102: an array without mask.
const char* kTemplates = R"(<qxpackets>
  <qxpacket id="100" mask="0">
    <int8 id="1"/><int16 id="2"/><int32 id="3"/><float id="4"/><double id="5"/>
    <string id="6" maxlen="4"/><wstring id="7" charset="unicode" maxlen="8"/>
    <int32 id="8" price="1"/>
  </qxpacket>
  <qxpacket id="101">
    <int8 id="20"/><int8 id="21"/><array><int16 id="40"/></array>
    <int8 id="22"/><int8 id="23"/><int8 id="24"/><int8 id="25"/>
    <int8 id="26"/><int8 id="27"/><int8 id="28"/><int8 id="29"/>
    <array><int16 id="50"/><int32 id="51"/><string id="52" maxlen="8"/></array>
  </qxpacket>
  <qxpacket id="102" mask="0">
    <array mask="0"><int32 id="60"/><int32 id="61"/></array><int16 id="62"/>
  </qxpacket>
</qxpackets>)";

Body AllTypes() {
    return Body().u16(100).u8(0xFE).u16(0x8001).i32(-123456).f32(1.5f).f64(-2.25).str("hello")
        .wstr({0x41, 0x42}).i32(98765);
}

void ExpectConsistent(const CQxDataPackage& pkg) {
    EXPECT_LE(static_cast<int>(pkg.items.size()), pkg.itemCount);
    for (const CQxDataItem& it : pkg.items)
        EXPECT_EQ(it.rows.size(), static_cast<size_t>(it.rowCount) * it.fieldCount);
}

class Decoder : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        std::string dir = (std::filesystem::temp_directory_path() / "decoder_XXXXXX").string();
        ASSERT_NE(mkdtemp(dir.data()), nullptr);
        FILE* fp = std::fopen((dir + "/t.xml").c_str(), "wb");
        std::fputs(kTemplates, fp);
        std::fclose(fp);
        ASSERT_TRUE(LoadPackageTemplate((dir + "/t.xml").c_str()));
        std::filesystem::remove_all(dir);
    }
    static void TearDownTestSuite() { g_vDataPackage.clear(); }
    static const CQxDataField& TField(unsigned short pkg, int item) {
        return FindPackageTemplate(pkg)->items.at(item).field;
    }
};

}  // namespace

// ---- decoded packages -------------------------------------------------------------

TEST_F(Decoder, EveryTypeAndTheGetters) {
    CQxDataPackage pkg;
    ASSERT_EQ(AllTypes().Decode(pkg), AllTypes().size());
    ASSERT_EQ(pkg.items.size(), 8u);
    EXPECT_EQ(pkg.GetNormalField(0)->GetInt8(), static_cast<char>(0xFE));
    EXPECT_EQ(pkg.GetNormalField(1)->GetInt16(), static_cast<short>(0x8001));
    EXPECT_EQ(pkg.GetNormalField(2)->GetInt32(), -123456);
    EXPECT_EQ(pkg.GetNormalField(3)->GetFloat(), 1.5f);
    EXPECT_EQ(pkg.GetNormalField(4)->value.d, -2.25);
    EXPECT_STREQ(pkg.GetNormalField(5)->GetString(), "hello");  // maxLen limits slots only
    EXPECT_STREQ(pkg.GetNormalFieldByID(7)->GetString(), "A");  // wide text: first character
    EXPECT_EQ(pkg.GetNormalFieldByID(8)->GetInt32(), 98765);
    EXPECT_EQ(pkg.GetNormalFieldByID(2)->GetInt32(), 0);  // getters answer for their type only
    EXPECT_EQ(pkg.GetNormalFieldByID(3)->GetInt16(), 0);
    EXPECT_EQ(pkg.GetNormalFieldByID(3)->GetString(), nullptr);
    EXPECT_EQ(pkg.GetNormalField(8), nullptr);
    EXPECT_EQ(pkg.GetArrayField(0, 0, 0), nullptr);

    // Unknown id: 0 and the package is left alone.
    EXPECT_EQ(Body().u16(4242).i32(1).Decode(pkg), 0);
    EXPECT_EQ(pkg.id, 100);
}

TEST_F(Decoder, PackageMaskMostSignificantBitFirst) {
    Body b;
    b.u16(101).u8(1).u8(0xA0).u8(5).u16(0).u8(7);  // fields 0 and 2; first array empty
    b.u16(1).u8(1).u8(0xE0).u16(9).u16(300).i32(-4).str("ab");
    CQxDataPackage pkg;
    ASSERT_EQ(b.Decode(pkg), b.size());
    ASSERT_EQ(pkg.items.size(), 12u);
    EXPECT_EQ(pkg.GetNormalFieldByID(20)->GetInt8(), 5);
    EXPECT_FALSE(pkg.GetNormalFieldByID(21)->IsValid());
    EXPECT_EQ(pkg.GetNormalFieldByID(22)->GetInt8(), 7);
    for (unsigned short id = 23; id <= 29; ++id)  // bits 8 and 9 lie past the mask
        EXPECT_FALSE(pkg.GetNormalFieldByID(id)->IsValid()) << id;
    EXPECT_EQ(pkg.GetArrayField(11, 0, 0)->GetInt16(), 300);
    EXPECT_STREQ(pkg.GetArrayFieldByID(52, 0)->GetString(), "ab");
    EXPECT_EQ(pkg.GetArrayField(11, 3, 0), nullptr);
    EXPECT_EQ(pkg.GetArrayField(11, 0, 1), nullptr);

    Body second;  // bit 9 sits in the second mask byte
    second.u16(101).u8(2).u8(0x00).u8(0x40).u16(0).u8(9).u16(0);
    ASSERT_EQ(second.Decode(pkg), second.size());
    EXPECT_EQ(pkg.GetNormalFieldByID(29)->GetInt8(), 9);
    EXPECT_FALSE(pkg.GetNormalFieldByID(20)->IsValid());
}

TEST_F(Decoder, RowMaskIsSharedByAllRows) {
    Body b;
    b.u16(101).u8(0).u16(0).u16(2).u8(1).u8(0xA0);  // columns 0 and 2
    b.u16(4).u16(1).str("x").u16(5).u16(2).str("yz");
    CQxDataPackage pkg;
    ASSERT_EQ(b.Decode(pkg), b.size());
    ASSERT_EQ(pkg.items.at(11).rowCount, 2);
    EXPECT_EQ(pkg.GetArrayFieldByID(50, 1)->GetInt16(), 2);
    EXPECT_FALSE(pkg.GetArrayFieldByID(51, 0)->IsValid());
    EXPECT_FALSE(pkg.GetArrayFieldByID(51, 1)->IsValid());
    EXPECT_STREQ(pkg.GetArrayField(11, 2, 1)->GetString(), "yz");
    EXPECT_EQ(pkg.GetArrayFieldByID(50, 2), nullptr);
}

TEST_F(Decoder, RowsLongerAndShorterThanTheirFields) {
    Body b;
    b.u16(102).u16(3).u16(8).i32(1).i32(2);
    b.u16(12).i32(3).i32(4).i32(-1);  // 4 bytes the template does not describe
    b.u16(4).i32(5);                  // the second field is left out
    b.u16(77);
    CQxDataPackage pkg;
    ASSERT_EQ(b.Decode(pkg), b.size());
    EXPECT_EQ(pkg.GetArrayField(0, 1, 1)->GetInt32(), 4);
    EXPECT_EQ(pkg.GetArrayField(0, 0, 2)->GetInt32(), 5);
    EXPECT_FALSE(pkg.GetArrayField(0, 1, 2)->IsValid());
    EXPECT_EQ(pkg.GetNormalField(1)->GetInt16(), 77);

    // A value may run past its row (not past the body); the next item starts
    // after the bytes the row claimed.
    Body over;
    over.u16(102).u16(1).u16(2).i32(0x01020304).u16(0);
    ASSERT_EQ(over.Decode(pkg), over.size());
    EXPECT_EQ(pkg.GetArrayField(0, 0, 0)->GetInt32(), 0x01020304);
    EXPECT_EQ(pkg.GetNormalField(1)->GetInt16(), 0x0102);

    Body shortBody;  // ends after two items: the rest is not added
    shortBody.u16(100).u8(1).u16(2);
    ASSERT_EQ(shortBody.Decode(pkg), shortBody.size());
    EXPECT_EQ(pkg.itemCount, 8);
    EXPECT_EQ(pkg.items.size(), 2u);
    EXPECT_EQ(pkg.GetNormalField(2), nullptr);
}

TEST_F(Decoder, WideText) {
    CQxDataField f = TField(100, 6);
    Body b = Body().wstr({0x4E2D, 0x42}).u8(0x55);
    EXPECT_EQ(DecodeField(b.Data().get(), b.size(), &f), 12);
    EXPECT_STREQ(f.GetString(), "\xE4\xB8\xAD");
    EXPECT_EQ(UnicodeToANSI(std::wstring{L'A', L'B'}), "A");
    EXPECT_EQ(UnicodeToANSI(L""), "");
    // Above U+FFFF both halves are non-zero and both come through.
    EXPECT_EQ(UnicodeToANSI(std::wstring(1, static_cast<wchar_t>(0x1F600))), "\xEF\x98\x80\x01");
    EXPECT_EQ(UnicodeToANSI(std::wstring(1, static_cast<wchar_t>(0xFFFFFFFFu))),
              "\xEF\xBF\xBF\xEF\xBF\xBF");
    EXPECT_EQ(UnicodeToANSI(std::wstring(1, static_cast<wchar_t>(0xDC00))), "");
}

// ---- flat records ------------------------------------------------------------------

TEST_F(Decoder, FlatRecordAndResetMarks) {
    const CQxDataPackage* t = FindPackageTemplate(100);
    std::vector<char> rec(t->size, 'x');
    const Body b = AllTypes();
    auto data = b.Data();
    int pos = 2;
    for (const CQxDataItem& it : t->items) {
        const int used = DecodeFieldData(data.get() + pos, b.size() - pos, &rec[it.field.offset], &it.field);
        ASSERT_GE(used, 0);
        pos += used;
    }
    EXPECT_EQ(pos, b.size());  // the cut text was skipped whole
    auto at = [&](int item) { return &rec[t->items[item].field.offset]; };
    auto i32At = [&](int item) {
        int32_t v;
        std::memcpy(&v, at(item), 4);
        return v;
    };
    EXPECT_EQ(i32At(2), -123456);
    EXPECT_EQ(std::string(at(5), 5), std::string("hell\0", 5));
    EXPECT_EQ(std::string(at(6), 9), std::string("A\0\0\0\0\0\0\0\0", 9));
    EXPECT_EQ(i32At(7), 98765);  // raw int in the first bytes of the price slot
    EXPECT_EQ(at(7)[4], 'x');    // converted by the handler

    std::fill(rec.begin(), rec.end(), 'x');
    for (const CQxDataItem& it : t->items) ResetFieldData(&rec[it.field.offset], &it.field);
    EXPECT_EQ(i32At(2), 2147483647);
    EXPECT_EQ(std::string(at(4), 8), "\xFF\xFF\xFF\xFF\xFF\xFF\xEF\x7F");  // the largest double
    EXPECT_EQ(i32At(7), 2147483647);
    EXPECT_EQ(std::string(at(1), 2), std::string(2, '\0'));
    EXPECT_EQ(std::count(rec.begin(), rec.end(), 'x'), 0);

    CQxDataField untyped;  // zeroes its slot, consumes nothing
    untyped.size = 3;
    char slot[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(DecodeFieldData("abc", 3, slot, &untyped), 0);
    EXPECT_EQ(std::string(slot, 4), std::string("\0\0\0x", 4));
}

// ---- streams -------------------------------------------------------------------------

TEST_F(Decoder, Streams) {
    const Body one = AllTypes();
    Body s;
    s.i32(one.size()).body(one).i32(6).u16(4242).i32(0).i32(0);  // unknown id, then empty body
    const int whole = s.size();
    s.u8(1).u8(2).u8(3);
    EXPECT_EQ(DecodePackages(s.Data().get(), s.size()), whole);
    Body cut;
    cut.i32(one.size()).body(one).i32(1000).u16(100);
    EXPECT_EQ(DecodePackages(cut.Data().get(), cut.size()), one.size() + 4);
    Body huge;
    huge.i32(-1).u16(100);
    EXPECT_EQ(DecodePackages(huge.Data().get(), huge.size()), 0);
    EXPECT_EQ(DecodePackages(s.Data().get(), 3), 0);
    EXPECT_EQ(DecodePackages(nullptr, 10), 0);
}

// ---- malformed input ------------------------------------------------------------------

TEST_F(Decoder, ValuesThatDoNotFitAreRefused) {
    char slot[16];
    std::memset(slot, 'x', sizeof slot);
    const int widths[] = {1, 2, 4, 4, 8};
    for (int i = 0; i < 5; ++i) {
        CQxDataField f = TField(100, i);
        auto p = Body().i32(1).i32(2).Data(widths[i] - 1);
        EXPECT_EQ(DecodeField(p.get(), widths[i] - 1, &f), -1) << i;
        EXPECT_FALSE(f.IsValid()) << i;
        EXPECT_EQ(DecodeFieldData(p.get(), widths[i] - 1, slot, &f), -1) << i;
    }
    CQxDataField text = TField(100, 5), wide = TField(100, 6);
    auto noZero = Body().u8('a').u8('b').Data();
    EXPECT_EQ(DecodeField(noZero.get(), 2, &text), -1);
    EXPECT_EQ(DecodeFieldData(noZero.get(), 2, slot, &text), -1);
    Body partial = Body().i32(0x41).u8(0).u8(0).u8(0);  // the 0 unit is one byte short
    EXPECT_EQ(DecodeField(partial.Data().get(), partial.size(), &wide), -1);
    EXPECT_EQ(DecodeFieldData(partial.Data().get(), partial.size(), slot, &wide), -1);
    EXPECT_EQ(slot[0], 'x');
}

TEST_F(Decoder, LengthsClaimingTooMuchEndTheBody) {
    CQxDataPackage pkg;
    Body mask = Body().u16(101).u8(200).u8(0xFF);
    EXPECT_EQ(mask.Decode(pkg), mask.size());
    EXPECT_TRUE(pkg.items.empty());

    Body row = Body().u16(102).u16(2).u16(8).i32(1).i32(2).u16(5).i32(3);  // one byte short
    EXPECT_EQ(row.Decode(pkg), row.size());
    EXPECT_EQ(pkg.items.at(0).rowCount, 1);  // the complete row stays
    EXPECT_EQ(pkg.GetArrayField(0, 1, 0)->GetInt32(), 2);

    Body rows = Body().u16(102).u16(0xFFFF).u16(0).u16(0);
    EXPECT_EQ(rows.Decode(pkg), rows.size());
    EXPECT_EQ(pkg.items.at(0).rowCount, 2);

    Body rowMask = Body().u16(101).u8(0).u16(1).u8(0xFF).u8(0x80);
    EXPECT_EQ(rowMask.Decode(pkg), rowMask.size());
    EXPECT_EQ(pkg.items.at(2).rowCount, 0);
    EXPECT_EQ(Body().u8(100).Decode(pkg), 0);
}

TEST_F(Decoder, TruncationsAndRandomBytesStayInsideTheBuffer) {
    Body masked;
    masked.u16(101).u8(2).u8(0xFF).u8(0xC0).u8(0).u8(1).u16(2).u8(1).u8(0x80).u16(2).u16(1)
        .u16(2).u16(2).u8(2).u8(3).u8(4).u8(5).u8(6).u8(7).u8(8).u8(9)
        .u16(2).u8(1).u8(0xE0).u16(9).u16(1).i32(2).str("ab").u16(9).u16(3).i32(4).str("cd");
    for (const Body& b : {masked, AllTypes()}) {
        for (int cut = 0; cut <= b.size(); ++cut) {
            CQxDataPackage pkg;
            EXPECT_EQ(b.Decode(pkg, cut), cut < 2 ? 0 : cut);
            ExpectConsistent(pkg);
        }
    }
    CQxDataPackage full;
    ASSERT_EQ(masked.Decode(full), masked.size());
    EXPECT_STREQ(full.GetArrayFieldByID(52, 1)->GetString(), "cd");

    std::mt19937 rng(20240601);
    const CQxDataPackage* flat = FindPackageTemplate(100);
    std::vector<char> rec(flat->size);
    for (int round = 0; round < 20000; ++round) {
        const int len = static_cast<int>(rng() % 64);
        std::unique_ptr<char[]> p(new char[len + 1]);
        for (int i = 0; i < len; ++i) p[i] = static_cast<char>(rng() % 4 ? rng() : rng() % 3);
        if (len >= 2) {
            p[0] = static_cast<char>(100 + rng() % 3);
            p[1] = 0;
        }
        CQxDataPackage pkg;
        DecodeOnePackage(p.get(), len, &pkg);
        ExpectConsistent(pkg);
        pkg.GetArrayFieldByID(51, static_cast<unsigned short>(rng() % 3));
        const int used = DecodePackages(p.get(), len);
        EXPECT_TRUE(used >= 0 && used <= len);
        int pos = 0, n = 0;  // the flat path, walked the way a handler walks it
        for (size_t i = 0; i < flat->items.size() && n >= 0; ++i, pos += n > 0 ? n : 0) {
            const CQxDataField& f = flat->items[i].field;
            n = DecodeFieldData(p.get() + pos, len - pos, &rec[f.offset], &f);
        }
        EXPECT_LE(pos, len);
    }
}
