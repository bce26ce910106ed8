#include "codec/DataPackage.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

namespace {

class Templates : public ::testing::Test {
protected:
    void SetUp() override {
        std::string tmpl = (std::filesystem::temp_directory_path() / "templates_XXXXXX").string();
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        std::filesystem::remove_all(dir_);
        g_vDataPackage.clear();
    }
    bool LoadText(const std::string& text) {
        const std::string path = dir_ + "/qxdctrans.xml";
        FILE* fp = std::fopen(path.c_str(), "wb");
        std::fputs(text.c_str(), fp);
        std::fclose(fp);
        return LoadPackageTemplate(path.c_str());
    }
    bool LoadPackets(const std::string& packets) {
        return LoadText("<?xml version=\"1.0\"?>\n<qxpackets>\n" + packets + "\n</qxpackets>\n");
    }
    const CQxDataField& Field(size_t pkg, size_t item) { return g_vDataPackage.at(pkg).items.at(item).field; }
    std::string dir_;
};

}  // namespace

TEST_F(Templates, LayoutExampleGivesRecordSize83) {
    ASSERT_TRUE(LoadPackets("<qxpacket id='7'><int32 id='1'/><string id='2' maxlen='20'/>"
                            "<array maxsize='5'><int16 id='3'/><int32 id='4' price='1'/></array>"
                            "<double id='5'/></qxpacket>"));
    ASSERT_EQ(g_vDataPackage.size(), 1u);
    const CQxDataPackage& p = g_vDataPackage[0];
    ASSERT_EQ(p.itemCount, 4);
    EXPECT_EQ(Field(0, 1).offset, 4);
    EXPECT_EQ(Field(0, 1).size, 21);
    const CQxDataItem& arr = p.items[2];
    EXPECT_EQ(arr.isArray, 1);
    EXPECT_EQ(arr.offset, 25);
    EXPECT_EQ(arr.rowSize, 10);
    EXPECT_EQ(arr.fieldCount, 2);
    EXPECT_EQ(arr.fields[1].offset, 2);
    EXPECT_EQ(Field(0, 3).offset, 75);
    EXPECT_EQ(p.size, 83);
}

TEST_F(Templates, TypesSizesAndDefaults) {
    ASSERT_TRUE(LoadPackets(
        "<qxpacket id='1' name='Quote' version='1.0'>"
        "<int8 id='1'/><int16 id='2'/><int32 id='3'/><float id='4'/><double id='5'/>"
        "<string id='6' maxlen='9' name='Symbol' comment='code'/>"
        "<text id='7' charset='unicode' maxlen='9'/><any id='8' charset='gbk'/>"
        "<int32 id='20' price='1'/><int32 id='11' price='1'/><int16 id='11'/>"
        "<int32 id='21' price='yes'/><string id='11' maxlen='30'/>"
        "<array><int32 id='2'/></array></qxpacket>"));
    const int types[] = {QXFT_INT8, QXFT_INT16, QXFT_INT32, QXFT_FLOAT, QXFT_DOUBLE, QXFT_STRING,
                         QXFT_WSTRING, QXFT_STRING, QXFT_INT32, QXFT_INT32, QXFT_INT16, QXFT_INT32,
                         QXFT_STRING};
    const int sizes[] = {1, 2, 4, 4, 8, 10, 10, 65, 8, 9, 9, 4, 9};
    int offset = 0;
    for (int i = 0; i < 13; ++i) {
        EXPECT_EQ(Field(0, i).type, types[i]) << i;
        EXPECT_EQ(Field(0, i).size, sizes[i]) << i;
        EXPECT_EQ(Field(0, i).offset, offset) << i;
        offset += sizes[i];
    }
    EXPECT_EQ(Field(0, 7).maxLen, 64);
    EXPECT_TRUE(Field(0, 9).price);
    EXPECT_FALSE(Field(0, 11).price);
    EXPECT_STREQ(Field(0, 5).name, "Symbol");
    EXPECT_STREQ(Field(0, 5).comment, "code");
    const CQxDataPackage& p = g_vDataPackage[0];
    EXPECT_STREQ(p.name, "Quote");
    EXPECT_STREQ(p.version, "1.0");
    EXPECT_TRUE(p.mask);
    EXPECT_EQ(p.items[13].maxSize, 10);
    EXPECT_EQ(p.size, offset + 10 * 4);
}

TEST_F(Templates, MasksAndEmptyArrays) {
    ASSERT_TRUE(LoadPackets(
        "<qxpacket id='4' mask='0'><int8 id='1'/>"
        "<array maxsize='0' mask='0'><int32 id='2'/><double id='3'/></array>"
        "<array maxsize='x' mask=''><int32 id='4'/></array><int16 id='5'/></qxpacket>"
        "<qxpacket id='5' mask=''/><qxpacket id='6' mask='2'/>"));
    const CQxDataPackage& p = g_vDataPackage.at(0);
    EXPECT_FALSE(p.mask);
    EXPECT_EQ(p.items[1].offset, 1);
    EXPECT_EQ(p.items[1].rowSize, 12);
    EXPECT_FALSE(p.items[1].mask);
    EXPECT_EQ(p.items[2].offset, 1);  // maxsize 0 reserved nothing
    EXPECT_TRUE(p.items[2].mask);
    EXPECT_EQ(Field(0, 3).offset, 1);
    EXPECT_EQ(p.size, 3);
    EXPECT_TRUE(g_vDataPackage.at(1).mask);
    EXPECT_TRUE(g_vDataPackage.at(2).mask);
}

TEST_F(Templates, TableAndLookUp) {
    const std::string longName(100, 'n');
    ASSERT_TRUE(LoadPackets("<qxpacket id='9' name='" + longName + "' version='1.2.3.4.5'/>"
                            "<other id='9'/><qxpacket id='9' name='second'/>"
                            "<qxpacket id='65545'/><qxpacket id='12'/>"));
    ASSERT_EQ(g_vDataPackage.size(), 4u);
    EXPECT_EQ(FindPackageTemplate(9), &g_vDataPackage[0]);  // first match wins
    EXPECT_EQ(g_vDataPackage[2].id, 9);                     // ids keep 16 bits
    EXPECT_EQ(std::string(g_vDataPackage[0].name), std::string(63, 'n'));
    EXPECT_STREQ(g_vDataPackage[0].version, "1.2.3.4");
    const CQxDataPackage* empty = FindPackageTemplate(12);
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->itemCount, 0);
    EXPECT_EQ(empty->size, 0);
    EXPECT_EQ(FindPackageTemplate(10), nullptr);

    EXPECT_TRUE(LoadPackets(""));
    EXPECT_TRUE(g_vDataPackage.empty());
}

TEST_F(Templates, FailuresLeaveAnEmptyTable) {
    ASSERT_TRUE(LoadPackets("<qxpacket id='1'/>"));
    EXPECT_FALSE(LoadText("<other><qxpacket id='1'/></other>"));
    EXPECT_TRUE(g_vDataPackage.empty());
    ASSERT_TRUE(LoadPackets("<qxpacket id='1'/>"));
    EXPECT_FALSE(LoadText("<qxpackets><qxpacket id='1'></qxpackets>"));
    EXPECT_EQ(FindPackageTemplate(1), nullptr);

    testing::internal::CaptureStdout();
    const std::string missing = dir_ + "/absent.xml";
    EXPECT_FALSE(LoadPackageTemplate(missing.c_str()));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "can't Load " + missing + "\n");
}

TEST(DataPackageValues, CopiesAreDeep) {
    CQxDataItem item;
    item.fields.resize(2);
    item.fields[0].strValue = "kept";
    CQxDataItem copy = item;
    copy.fields[0].strValue = "changed";
    EXPECT_EQ(item.fields[0].strValue, "kept");
    CQxDataField f;
    EXPECT_EQ(f.maxLen, 64);
    EXPECT_EQ(f.value.d, 0.0);
    EXPECT_FALSE(f.IsValid());
}
