#include "codec/FamilyAccess.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "base/Markup.h"

namespace {

// The record is packed: read its members by value, never by reference.
int Family(const QxFamilyAccess& e) { return e.Family; }
int Groups(const QxFamilyAccess& e) { return e.Groups; }

class AccessFile : public ::testing::Test {
protected:
    void SetUp() override {
        std::string tmpl = (std::filesystem::temp_directory_path() / "access_XXXXXX").string();
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
        dir_ = tmpl;
        path_ = dir_ + "/qxmktaccess.xml";
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    // Writes the file (unless text is null), loads it and returns what was printed.
    std::string Load(const char* text) {
        if (text) {
            FILE* fp = std::fopen(path_.c_str(), "wb");
            std::fputs(text, fp);
            std::fclose(fp);
        }
        testing::internal::CaptureStdout();
        access_.Load(path_.c_str());
        return testing::internal::GetCapturedStdout();
    }
    std::string dir_, path_;
    CFamilyAccess access_;
};

}  // namespace

TEST_F(AccessFile, MissingBrokenOrAllAccessFilesGrantAllMarkets) {
    access_.familyAccess[0].Family = 5;
    EXPECT_EQ(Load(nullptr), "can't Load qxmktaccess.xml\n");
    EXPECT_TRUE(access_.allAccess);
    EXPECT_EQ(access_.Count(), 0);
    EXPECT_EQ(Load("<qxmkts><qxmkt family='3'></qxmkts>"), "can't Load qxmktaccess.xml\n");
    EXPECT_TRUE(access_.allAccess);
    EXPECT_EQ(Load("<other><qxmkt family='3'/></other>"), "");
    EXPECT_TRUE(access_.allAccess);
    Load("<qxmkts allaccess='2'><qxmkt family='12'/></qxmkts>");
    EXPECT_TRUE(access_.allAccess);
    EXPECT_EQ(access_.Count(), 0);
}

TEST_F(AccessFile, Entries) {
    Load("<qxmkts allaccess='0'><qxmkt family='12' groups='3'/><qxmkt family='15'/></qxmkts>");
    EXPECT_FALSE(access_.allAccess);
    ASSERT_EQ(access_.Count(), 2);
    EXPECT_EQ(Family(access_.familyAccess[0]), 12);
    EXPECT_EQ(Groups(access_.familyAccess[0]), 3);
    EXPECT_EQ(Groups(access_.familyAccess[1]), -1);

    Load("<qxmkts allaccess=''><qxmkt groups='4'/><note family='99'/><qxmkt family='8' groups='-7'/>"
         "<qxmkt family='0' groups='1'/><qxmkt family='9'/><qxmkt family='65537'/></qxmkts>");
    EXPECT_FALSE(access_.allAccess);
    EXPECT_EQ(access_.Count(), 1);  // family 0 ends the list for every reader
    EXPECT_EQ(Family(access_.familyAccess[0]), 8);
    EXPECT_EQ(Groups(access_.familyAccess[1]), 1);
    EXPECT_EQ(Family(access_.familyAccess[2]), 9);
    EXPECT_EQ(Family(access_.familyAccess[3]), 1);  // 16 bits kept

    std::string many = "<qxmkts>";
    for (int i = 1; i <= 250; ++i) many += "<qxmkt family='" + std::to_string(i) + "'/>";
    Load((many + "</qxmkts>").c_str());
    EXPECT_EQ(access_.Count(), 200);
    EXPECT_EQ(Family(access_.familyAccess[199]), 200);
}

TEST_F(AccessFile, SaveAndLoadBack) {
    access_.familyAccess[0] = {12, 3};
    access_.familyAccess[1] = {15, -1};
    access_.familyAccess[2] = {65535, 0};
    access_.familyAccess[4] = {77, 1};  // after the end of the list
    const CFamilyAccess saved = access_;
    access_.Save(path_.c_str());

    CMarkup xml;
    ASSERT_TRUE(xml.Load(path_.c_str()));
    EXPECT_EQ(xml.GetDoc().rfind("<?xml version=\"1.0\" encoding=\"UTF-8\"?>", 0), 0u);
    ASSERT_TRUE(xml.FindElem("qxmkts"));
    ASSERT_TRUE(xml.FindChildElem("qxmkt") && xml.FindChildElem("qxmkt") && xml.IntoElem());
    EXPECT_EQ(xml.GetAttrib("family"), "15");
    EXPECT_EQ(xml.GetAttrib("groups"), "");  // -1 is not written

    Load(nullptr);
    EXPECT_FALSE(access_.allAccess);
    ASSERT_EQ(access_.Count(), 3);
    EXPECT_EQ(std::memcmp(access_.familyAccess, saved.familyAccess, 3 * sizeof(QxFamilyAccess)), 0);
    EXPECT_EQ(Family(access_.familyAccess[4]), 0);

    access_.allAccess = true;
    access_.Save(path_.c_str());
    ASSERT_TRUE(xml.Load(path_.c_str()) && xml.FindElem("qxmkts"));
    EXPECT_EQ(xml.GetAttrib("allaccess"), "1");
    EXPECT_FALSE(xml.FindChildElem());

    access_.Save((dir_ + "/missing/x.xml").c_str());  // failure is silent
}

TEST_F(AccessFile, DefaultPathIsTheWorkingDirectory) {
    const std::string old = std::filesystem::current_path().string();
    ASSERT_EQ(chdir(dir_.c_str()), 0);
    access_.familyAccess[0] = {21, 2};
    access_.Save();
    CFamilyAccess in;
    in.Load();
    ASSERT_EQ(chdir(old.c_str()), 0);
    EXPECT_EQ(in.Count(), 1);
    EXPECT_EQ(Groups(in.familyAccess[0]), 2);
}

TEST(FamilyAccessState, ChangedAndReset) {
    CFamilyAccess a;
    EXPECT_FALSE(a.Changed());
    a.familyAccess[0].Groups = 5;  // any byte counts, even past the end
    EXPECT_TRUE(a.Changed());
    a.CommitSaved();
    EXPECT_FALSE(a.Changed());
    a.allAccess = a.savedAllAccess = true;
    EXPECT_TRUE(a.Changed());  // all markets always count as changed
    for (auto& e : a.familyAccess) e.Family = 1;
    EXPECT_EQ(a.Count(), 200);
    a.Reset();
    EXPECT_FALSE(a.allAccess || a.savedAllAccess);
    EXPECT_EQ(a.Count(), 0);
    EXPECT_EQ(Groups(a.savedFamilyAccess[0]), 0);
}

TEST(FamilyAccessState, RebuildTakesTwoSlotsPerId) {
    CFamilyAccess a;
    for (auto& e : a.familyAccess) e = {9, 9};
    a.RebuildFrom({30, 10, 20});
    const QxFamilyAccess expected[7] = {{10, 0}, {0, -1}, {20, 0}, {0, -1}, {30, 0}, {0, -1}, {0, 0}};
    EXPECT_EQ(std::memcmp(a.familyAccess, expected, sizeof expected), 0);
    EXPECT_EQ(Family(a.familyAccess[199]), 0);
    EXPECT_EQ(a.Count(), 1);

    std::set<unsigned short> ids;
    for (unsigned short id = 1; id <= 150; ++id) ids.insert(id);
    a.RebuildFrom(ids);  // only the first 100 ids fit
    for (int n = 0; n < 200; n += 2) {
        EXPECT_EQ(Family(a.familyAccess[n]), n / 2 + 1);
        EXPECT_EQ(Groups(a.familyAccess[n]), 0);
        EXPECT_EQ(Family(a.familyAccess[n + 1]), 0);
        EXPECT_EQ(Groups(a.familyAccess[n + 1]), -1);
    }
}
