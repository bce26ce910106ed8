// Flat records of template packages: marks, decoded fields, array rows,
// prices, id-11 texts, and bodies that end early.
#include "codec/PackageRecord.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "codec/PackageBody.h"

namespace {

// 300: id 1 int32 (0), text maxlen 6 (4, 7 bytes), wide text maxlen 4 (11,
// 5 bytes), id 11 int16 (16, 9 bytes), price int32 (25, 8), float price (33,
// 8), array maxsize 2 of {price int32, int16} at 41 (rows of 10 bytes), a
// double (61, 8); 69 bytes.
// 301: no package mask; an id-11 text field; an int16 price.
const char* kTemplates = R"(<qxpackets>
  <qxpacket id="300">
    <int32 id="1"/><string id="2" maxlen="6"/><wstring id="3" charset="unicode" maxlen="4"/>
    <int16 id="11"/><int32 id="4" price="1"/><float id="5" price="1"/>
    <array maxsize="2"><int32 id="6" price="1"/><int16 id="7"/></array>
    <double id="8"/>
  </qxpacket>
  <qxpacket id="301" mask="0">
    <string id="11" maxlen="20"/><int16 id="9" price="1"/>
  </qxpacket>
  <qxpacket id="302" mask="0">
    <int32 id="1"/><array maxsize="-2"><double id="2"/></array><double id="3"/>
  </qxpacket>
</qxpackets>)";

class PackageRecordTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        const std::string path = (std::filesystem::temp_directory_path() / "orvex-record-templates.xml").string();
        FILE* f = std::fopen(path.c_str(), "wb");
        ASSERT_NE(f, nullptr);
        std::fputs(kTemplates, f);
        std::fclose(f);
        ASSERT_TRUE(LoadPackageTemplate(path.c_str()));
        std::remove(path.c_str());
    }

    // Builds the record of the body (an exact heap copy of its first n bytes).
    bool Build(const Body& body, int n = -1) {
        if (n < 0) n = body.size();
        std::unique_ptr<char[]> data = body.Data(n);
        uint16_t id = 0;
        if (n >= 2) std::memcpy(&id, data.get(), 2);
        const CQxDataPackage* tmpl = FindPackageTemplate(id);
        if (!tmpl) return false;
        return BuildPackageRecord(*tmpl, data.get(), n, &record, &Names, nullptr);
    }
    static void Names(void*, int value, char* out9) { std::snprintf(out9, 9, "M%d", value); }

    template <class T>
    T At(size_t offset) const {
        T v;
        std::memcpy(&v, record.data() + offset, sizeof v);
        return v;
    }
    std::string Text(size_t offset) const { return std::string(record.data() + offset); }

    std::vector<char> record;
};

// Every single field present, two array rows.
Body Full() {
    Body b;
    b.u16(300).u8(1).u8(0xFE);   // all seven single fields present
    b.i32(-5).str("abcdefgh").wstr({0x41, 0x42}).u16(2001).i32(700050).f32(1.5f);
    b.u16(2).u8(1).u8(0xC0);     // two rows, both fields
    b.u16(6).i32(123).u16(7).u16(6).i32(0x7FFFFFFF).u16(8);
    return b.f64(2.25);
}

TEST_F(PackageRecordTest, PresentFieldsGoToTheirSlotsAndPricesBecomeDoubles) {
    ASSERT_TRUE(Build(Full()));
    ASSERT_EQ(record.size(), 69u);
    EXPECT_EQ(At<int32_t>(0), -5);
    EXPECT_EQ(Text(4), "abcdef");      // cut to maxlen
    EXPECT_EQ(Text(11), "A");          // wide text: its first character
    EXPECT_EQ(Text(16), "M2001");      // id 11: the caller's text for the number
    EXPECT_EQ(record[24], '\0');
    EXPECT_EQ(At<double>(25), 700050.0);
    EXPECT_EQ(At<double>(33), 1.5);
    EXPECT_EQ(At<double>(41), 123.0);
    EXPECT_EQ(At<int16_t>(49), 7);
    EXPECT_EQ(At<double>(51), DBL_MAX);   // the absent mark sent as a value
    EXPECT_EQ(At<int16_t>(59), 8);
    EXPECT_EQ(At<double>(61), 2.25);
}

TEST_F(PackageRecordTest, AbsentFieldsAndMissingRowsKeepTheirMarks) {
    Body b;
    b.u16(300).u8(1).u8(0x80).i32(9);   // only the first single field
    b.u16(0);                           // no rows: no row mask follows
    ASSERT_TRUE(Build(b));
    EXPECT_EQ(At<int32_t>(0), 9);
    EXPECT_EQ(Text(4), "");
    EXPECT_EQ(Text(16), "");              // an absent number has no text
    EXPECT_EQ(At<double>(25), DBL_MAX);   // int32 price at its mark
    EXPECT_EQ(At<double>(33), 0.0);       // a float's mark is zero
    for (size_t row : {41u, 51u}) {
        EXPECT_EQ(At<double>(row), DBL_MAX) << row;
        EXPECT_EQ(At<int16_t>(row + 8), 0) << row;
    }
    EXPECT_EQ(At<double>(61), DBL_MAX);
}

TEST_F(PackageRecordTest, RowsPastMaxsizeAreSkippedAndTheBodyGoesOn) {
    Body b;
    b.u16(300).u8(1).u8(0x02);   // of the single fields only the double
    b.u16(3).u8(1).u8(0x40);     // three rows carrying the int16 only
    b.u16(2).u16(1).u16(2).u16(2).u16(6).u16(3).u8(0xEE).u8(0xEE).u8(0xEE).u8(0xEE);
    b.f64(-1.0);
    ASSERT_TRUE(Build(b));
    EXPECT_EQ(At<int16_t>(49), 1);
    EXPECT_EQ(At<int16_t>(59), 2);
    EXPECT_EQ(At<double>(41), DBL_MAX);   // the price column was not sent
    EXPECT_EQ(At<double>(61), -1.0);      // read after the skipped third row
}

TEST_F(PackageRecordTest, BodyEndingEarlyLeavesTheRestAtItsMarksAndReadsNothingBeyond) {
    const Body full = Full();
    for (int n = 2; n < full.size(); ++n) {
        ASSERT_TRUE(Build(full, n)) << n;
        ASSERT_EQ(record.size(), 69u);
        EXPECT_EQ(At<double>(61), DBL_MAX) << n;   // the last field never arrives
    }
    // Cut inside the first text: everything after the first field is marked.
    ASSERT_TRUE(Build(full, 3 + 1 + 4 + 3));
    EXPECT_EQ(At<int32_t>(0), -5);
    EXPECT_EQ(Text(4), "");
    EXPECT_EQ(At<double>(25), DBL_MAX);
}

TEST_F(PackageRecordTest, TextIdElevenKeepsEightBytesAndSmallPricesWiden) {
    Body b;
    b.u16(301).str("SHFE-long-name").u16(static_cast<unsigned>(-3) & 0xFFFF);
    ASSERT_TRUE(Build(b));
    ASSERT_EQ(record.size(), 9u + 8u);
    EXPECT_EQ(Text(0), "SHFE-lon");
    EXPECT_EQ(At<double>(9), -3.0);
}

TEST_F(PackageRecordTest, ATemplateThatPutsSlotsOutsideItsRecordBuildsNothing) {
    // maxsize -2 moves the double after the array 16 bytes before its start.
    Body b;
    b.u16(302).i32(1).u16(0).f64(2.0);
    EXPECT_FALSE(Build(b));
}

TEST_F(PackageRecordTest, UnknownOrForeignBodiesBuildNothing) {
    Body b;
    b.u16(999).i32(1);
    EXPECT_FALSE(Build(b));
    const CQxDataPackage* tmpl = FindPackageTemplate(300);
    ASSERT_NE(tmpl, nullptr);
    std::unique_ptr<char[]> data = b.Data();
    EXPECT_FALSE(BuildPackageRecord(*tmpl, data.get(), b.size(), &record, nullptr, nullptr));
    EXPECT_FALSE(BuildPackageRecord(*tmpl, data.get(), 1, &record, nullptr, nullptr));
}

}  // namespace
