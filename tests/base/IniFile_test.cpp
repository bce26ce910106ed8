#include "base/IniFile.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace fs = std::filesystem;

namespace {

// Everything the object holds, through its index accessors: header
// comments, then each section with its comments and name=value lines.
std::string Dump(const CIniFile& ini) {
    std::string out;
    for (unsigned i = 0; i < ini.NumHeaderComments(); ++i) out += ";" + ini.HeaderComment(i) + "\n";
    for (unsigned k = 0; k < ini.NumKeys(); ++k) {
        out += "[" + ini.KeyName(k) + "]\n";
        for (unsigned c = 0; c < ini.NumKeyComments(k); ++c)
            out += ";" + ini.KeyComment(k, c) + "\n";
        for (unsigned v = 0; v < ini.NumValues(k); ++v)
            out += ini.ValueName(k, v) + "=" + ini.GetValue(k, v, "") + "\n";
    }
    return out;
}

class IniFileTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::string tmpl = (fs::temp_directory_path() / "inifile_XXXXXX").string();
        ASSERT_NE(mkdtemp(tmpl.data()), nullptr);
        dir_ = tmpl;
    }
    void TearDown() override {
        std::error_code ec;
        fs::remove_all(dir_, ec);
    }

    std::string Write(const std::string& text, const std::string& name = "t.ini") {
        const std::string p = (dir_ / name).string();
        std::ofstream(p, std::ios::binary) << text;
        return p;
    }
    static std::string Slurp(const std::string& p) {
        std::ifstream in(p, std::ios::binary);
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }
    // Reads text through the path constructor.
    CIniFile Load(const std::string& text) { return CIniFile(Write(text)); }

    fs::path dir_;
};

// ---------------------------------------------------------------- parsing

TEST_F(IniFileTest, NamesAndValuesAreNeverTrimmed) {
    CIniFile ini = Load("[s]\nkey = value\n\tk2=\tv2 \n");
    EXPECT_EQ(ini.GetValue("s", "key", "none"), "none");
    EXPECT_EQ(ini.GetValue("s", "key "), " value");
    EXPECT_EQ(ini.GetValue("s", "\tk2"), "\tv2 ");
}

TEST_F(IniFileTest, FirstSpecialCharacterDecidesTheLineKind) {
    CIniFile ini = Load("[s]\na=b;c\nh=x#y\nx;y=z\nq#r=t\nm=n=o\n=empty\nplain text line\n");
    EXPECT_EQ(Dump(ini), "[s]\n;y=z\n;r=t\na=b;c\nh=x#y\nm=n=o\n=empty\n");
    EXPECT_EQ(ini.GetValue("s", "a"), "b;c");
    EXPECT_EQ(ini.GetValue("s", ""), "empty");
    EXPECT_EQ(ini.FindValue(0, "x"), CIniFile::noID);
    EXPECT_EQ(ini.FindValue(0, "x;y"), CIniFile::noID);
}

TEST_F(IniFileTest, SectionHeaderForms) {
    CIniFile ini = Load("  [sec]  \n[open\nx]y[z]\na]b[\n[]\n[a[b]c]\n");
    EXPECT_EQ(Dump(ini), "[sec]\n[z]\n[]\n[a[b]c]\n");
}

TEST_F(IniFileTest, ValuesBeforeAnyHeaderGoToTheEmptySection) {
    CIniFile ini;
    ini.SetPath(Write("a=1\n;note\n[s]\nb=2\n"));
    EXPECT_TRUE(ini.ReadFile());
    // A section exists once the value line is read, so the comment is the
    // empty section's, not a header comment.
    EXPECT_EQ(Dump(ini), "[]\n;note\na=1\n[s]\nb=2\n");
    EXPECT_EQ(ini.GetValue("", "a"), "1");
}

TEST_F(IniFileTest, RepeatedHeaderAddsEmptyEntryAndValuesGoToTheFirst) {
    CIniFile ini = Load("[s]\na=1\n[t]\n[s]\nb=2\na=3\n;c\n");
    EXPECT_EQ(Dump(ini), "[s]\n;c\na=3\nb=2\n[t]\n[s]\n");
    EXPECT_EQ(ini.GetValue("s", "a"), "3");
}

TEST_F(IniFileTest, LineEndingsAndBlankLines) {
    CIniFile ini = Load("\n\r\n[s]\r\na=1\r\nb=2\r\r\nc=3");  // last line unterminated
    EXPECT_EQ(Dump(ini), "[s]\na=1\nb=2\r\nc=3\n");  // only one '\r' is dropped
}

TEST_F(IniFileTest, HeaderCommentsOnlyFileReadsFalseAndKeepsThem) {
    CIniFile ini;
    ini.SetPath(Write("; first\n#second\n"));
    EXPECT_FALSE(ini.ReadFile());
    EXPECT_EQ(Dump(ini), "; first\n;second\n");
    EXPECT_EQ(ini.HeaderComment(2u), "");
}

TEST_F(IniFileTest, ReadingAddsToWhatIsHeldAndMissingFileChangesNothing) {
    CIniFile ini;
    ini.SetPath(Write("[s]\na=1\n"));
    ASSERT_TRUE(ini.ReadFile());
    ASSERT_TRUE(ini.ReadFile());
    EXPECT_EQ(Dump(ini), "[s]\na=1\n[s]\n");

    ini.SetPath((dir_ / "missing.ini").string());
    EXPECT_FALSE(ini.ReadFile());
    EXPECT_EQ(Dump(ini), "[s]\na=1\n[s]\n");

    CIniFile none((dir_ / "missing.ini").string());
    EXPECT_EQ(none.NumKeys(), 0u);
}

// ---------------------------------------------------------------- names

TEST_F(IniFileTest, CaseFoldingFindsButKeepsTheWrittenCase) {
    CIniFile ini = Load("[CONFIG]\nLevel=3\n");
    EXPECT_EQ(ini.FindKey("config"), 0u);
    EXPECT_EQ(ini.GetValueI("config", "LEVEL", -1), 3);
    EXPECT_EQ(ini.KeyName(0), "CONFIG");
    EXPECT_EQ(ini.ValueName("config", 0), "Level");
    ASSERT_TRUE(ini.WriteFile());
    EXPECT_EQ(Slurp(ini.Path()), "[CONFIG]\nLevel=3\n\n");

    // Only ASCII letters fold.
    ini.SetValue("\xC3\x84", "k", "v");
    EXPECT_EQ(ini.FindKey("\xC3\xA4"), CIniFile::noID);

    ini.CaseSensitive();
    EXPECT_EQ(ini.FindKey("config"), CIniFile::noID);
    EXPECT_EQ(ini.FindKey("CONFIG"), 0u);
}

TEST_F(IniFileTest, OutOfRangeAccessorsGiveEmptyResults) {
    CIniFile ini;
    ini.SetValue("s", "a", "1");
    EXPECT_EQ(ini.FindValue(5, "a"), CIniFile::noID);
    EXPECT_EQ(ini.FindValue(CIniFile::noID, "a"), CIniFile::noID);
    EXPECT_EQ(ini.KeyName(1), "");
    EXPECT_EQ(ini.NumValues(1u), 0u);
    EXPECT_EQ(ini.NumValues("nope"), 0u);
    EXPECT_EQ(ini.ValueName(0, 1), "");
    EXPECT_EQ(ini.ValueName("nope", 0), "");
    EXPECT_EQ(ini.GetValue(0, 1, "d"), "d");
    EXPECT_EQ(ini.GetValue(0, 0, "d"), "1");
    EXPECT_EQ(ini.AddKeyName("s"), 1u);  // never checks for an existing one
}

// ---------------------------------------------------------------- values

TEST_F(IniFileTest, GetValueBIsNumericOnly) {
    CIniFile ini = Load("[s]\nt=true\ny=yes\none=1\nfive=5\nneg=-1\nzero=0\nsp= 1\n");
    EXPECT_FALSE(ini.GetValueB("s", "t", true));
    EXPECT_FALSE(ini.GetValueB("s", "y"));
    EXPECT_TRUE(ini.GetValueB("s", "one"));
    EXPECT_TRUE(ini.GetValueB("s", "five"));
    EXPECT_TRUE(ini.GetValueB("s", "neg"));
    EXPECT_FALSE(ini.GetValueB("s", "zero", true));
    EXPECT_TRUE(ini.GetValueB("s", "sp"));
    EXPECT_TRUE(ini.GetValueB("s", "missing", true));
    EXPECT_FALSE(ini.GetValueB("s", "missing", false));
    EXPECT_TRUE(ini.GetValueB("nosec", "x", true));
}

TEST_F(IniFileTest, GetValueIAndFConvertTheStoredText) {
    CIniFile ini = Load("[s]\nn=12abc\nw=abc\nf=2.5x\n");
    EXPECT_EQ(ini.GetValueI("s", "n", 7), 12);
    EXPECT_EQ(ini.GetValueI("s", "w", 7), 0);  // default only when absent
    EXPECT_EQ(ini.GetValueI("s", "missing", 7), 7);
    EXPECT_EQ(ini.GetValueI("s", "missing", -5), -5);
    EXPECT_DOUBLE_EQ(ini.GetValueF("s", "f", 9.0), 2.5);
    EXPECT_DOUBLE_EQ(ini.GetValueF("s", "missing", 1.25), 1.25);
    // The default passes through "%f" text, six decimals.
    EXPECT_DOUBLE_EQ(ini.GetValueF("s", "missing", 1.0000004), 1.0);
}

TEST_F(IniFileTest, GetValueVScansTheValue) {
    CIniFile ini = Load("[s]\npair=10,20\nempty=\nmany=1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16\n");
    int a = -1, b = -1;
    EXPECT_EQ(ini.GetValueV("s", "pair", "%d,%d", &a, &b), 2);
    EXPECT_EQ(a, 10);
    EXPECT_EQ(b, 20);
    a = -1;
    EXPECT_EQ(ini.GetValueV("s", "empty", "%d", &a), 0);
    EXPECT_EQ(ini.GetValueV("s", "missing", "%d", &a), 0);
    EXPECT_EQ(a, -1);

    int v[16] = {};
    EXPECT_EQ(ini.GetValueV("s", "many", "%d %d %d %d %d %d %d %d %d %d %d %d %d %d %d %d", &v[0],
                            &v[1], &v[2], &v[3], &v[4], &v[5], &v[6], &v[7], &v[8], &v[9], &v[10],
                            &v[11], &v[12], &v[13], &v[14], &v[15]),
              16);
    EXPECT_EQ(v[0], 1);
    EXPECT_EQ(v[15], 16);
}

TEST_F(IniFileTest, SetValueByNameNeedsCreateAndByIndexAlwaysReportsFalse) {
    CIniFile ini;
    EXPECT_FALSE(ini.SetValue("s", "a", "1", false));
    EXPECT_EQ(ini.NumKeys(), 0u);
    EXPECT_TRUE(ini.SetValue("S", "A", "1"));
    EXPECT_FALSE(ini.SetValue("s", "b", "2", false));
    EXPECT_EQ(ini.NumValues("s"), 1u);
    EXPECT_TRUE(ini.SetValue("s", "a", "x", false));  // replaces, keeps the first spelling
    EXPECT_EQ(Dump(ini), "[S]\nA=x\n");

    EXPECT_FALSE(ini.SetValue(0u, 0u, std::string("2")));  // replaced all the same
    EXPECT_FALSE(ini.SetValue(0u, 1u, std::string("3")));
    EXPECT_FALSE(ini.SetValue(1u, 0u, std::string("3")));
    EXPECT_EQ(Dump(ini), "[S]\nA=2\n");
}

TEST_F(IniFileTest, TypedSettersIgnoreCreateAndFormat) {
    CIniFile ini;
    EXPECT_TRUE(ini.SetValueI("k", "v", 5, false));
    EXPECT_EQ(ini.GetValue("k", "v"), "5");
    EXPECT_TRUE(ini.SetValueF("k", "f", 2.5, false));
    EXPECT_EQ(ini.GetValue("k", "f"), "2.500000");
    EXPECT_TRUE(ini.SetValueV("k2", "x", "%s-%03d", "ab", 7));
    EXPECT_EQ(ini.GetValue("k2", "x"), "ab-007");
    const std::string big(5000, 'z');
    EXPECT_TRUE(ini.SetValueV("k2", "big", "%s", big.c_str()));
    EXPECT_EQ(ini.GetValue("k2", "big").size(), 2047u);
}

TEST_F(IniFileTest, DeletingValuesKeysAndComments) {
    CIniFile ini = Load(";h1\n;h2\n[s]\n;c1\n;c2\na=1\nb=2\n[t]\nx=1\n");
    EXPECT_TRUE(ini.DeleteValue("S", "A"));
    EXPECT_FALSE(ini.DeleteValue("s", "a"));
    EXPECT_FALSE(ini.DeleteValue("nope", "b"));
    EXPECT_EQ(Dump(ini), ";h1\n;h2\n[s]\n;c1\n;c2\nb=2\n[t]\nx=1\n");
    EXPECT_EQ(ini.GetValue("s", "b"), "2");  // found by name after the shift

    EXPECT_TRUE(ini.DeleteKeyComment("s", 0));
    EXPECT_EQ(ini.KeyComment("s", 0u), "c2");
    EXPECT_FALSE(ini.DeleteKeyComment("s", 1));
    EXPECT_TRUE(ini.KeyComment("s", std::string("c3")));
    EXPECT_FALSE(ini.KeyComment("nope", std::string("c")));
    EXPECT_FALSE(ini.KeyComment(9u, std::string("c")));
    EXPECT_EQ(ini.NumKeyComments("s"), 2u);
    EXPECT_TRUE(ini.DeleteKeyComments("s"));
    EXPECT_EQ(ini.NumKeyComments(0u), 0u);
    EXPECT_FALSE(ini.DeleteKeyComments("nope"));

    EXPECT_TRUE(ini.DeleteHeaderComment(0));
    EXPECT_FALSE(ini.DeleteHeaderComment(1));
    EXPECT_TRUE(ini.DeleteKey("s"));
    EXPECT_FALSE(ini.DeleteKey("s"));
    EXPECT_EQ(Dump(ini), ";h2\n[t]\nx=1\n");
    EXPECT_EQ(ini.GetValue("t", "x"), "1");

    ini.Erase();
    EXPECT_EQ(Dump(ini), "");
}

// ---------------------------------------------------------------- writing

TEST_F(IniFileTest, WriteFileLayout) {
    CIniFile ini = Load("#head\n\n[b]\n#c\nk = v\njunk\n[a]\nz=1\ny=2\n");
    ASSERT_TRUE(ini.WriteFile());
    const std::string expected = ";head\n\n[b]\n;c\nk = v\n\n[a]\nz=1\ny=2\n\n";
    EXPECT_EQ(Slurp(ini.Path()), expected);

    // Written text reads back to the same object.
    CIniFile again(ini.Path());
    ASSERT_TRUE(again.WriteFile());
    EXPECT_EQ(Slurp(again.Path()), expected);
}

TEST_F(IniFileTest, WriteFileTruncatesAndFailsOnBadPath) {
    const std::string p = Write(std::string(1000, ';') + "\n");
    CIniFile ini;
    ini.SetPath(p);
    ini.SetValue("s", "a", "1");
    ASSERT_TRUE(ini.WriteFile());
    EXPECT_EQ(Slurp(p), "[s]\na=1\n\n");

    ini.SetPath((dir_ / "no_such_dir" / "x.ini").string());
    EXPECT_FALSE(ini.WriteFile());
    EXPECT_EQ(ini.NumKeys(), 1u);
}

}  // namespace
