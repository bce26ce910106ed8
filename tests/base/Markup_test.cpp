#include "base/Markup.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>

namespace {

const char* kSample =
    "\xEF\xBB\xBF<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
    "<!DOCTYPE a [<!ENTITY e \"v>\">]>\n"
    "<!-- leading comment -->\n"
    "<a kind='outer' n = \"1\">\n"
    "  <b x=\"1\"/>\n"
    "  <!-- <z/> is only a comment -->\n"
    "  <c y='two \"words\"' e=\"a &lt; b\">text <![CDATA[<no/>]]> of c</c>\n"
    "</a>\n";

// Tag names of the children of the main position, with attribute "k".
std::string Children(CMarkup& xml) {
    std::string out;
    while (xml.FindChildElem()) {
        xml.IntoElem();
        out += xml.GetTagName() + xml.GetAttrib("k") + " ";
        xml.OutOfElem();
    }
    return out;
}

}  // namespace

TEST(Markup, CursorWalk) {
    CMarkup xml;
    ASSERT_TRUE(xml.SetDoc(kSample)) << xml.GetResult();
    EXPECT_FALSE(xml.FindElem("x"));  // fails and leaves the cursor
    EXPECT_EQ(xml.GetTagName(), "");
    ASSERT_TRUE(xml.FindChildElem());  // moves to the root first
    EXPECT_EQ(xml.GetTagName(), "a");
    ASSERT_TRUE(xml.IntoElem());
    EXPECT_EQ(xml.GetTagName(), "b");
    ASSERT_TRUE(xml.OutOfElem());
    EXPECT_EQ(xml.GetTagName(), "a");
    ASSERT_TRUE(xml.FindChildElem());
    ASSERT_TRUE(xml.IntoElem());
    EXPECT_EQ(xml.GetTagName(), "c");
    EXPECT_FALSE(xml.FindElem("b"));  // search goes on after c only
    ASSERT_TRUE(xml.OutOfElem());
    EXPECT_FALSE(xml.FindChildElem());
    EXPECT_FALSE(xml.OutOfElem());
    EXPECT_FALSE(xml.FindElem("a/b"));  // paths are not names

    CMarkup r;
    ASSERT_TRUE(r.SetDoc("<r><p/><q/></r>"));
    EXPECT_FALSE(r.IntoElem());  // no main position
    ASSERT_TRUE(r.FindElem());
    ASSERT_TRUE(r.IntoElem());   // no child position: no main position inside
    EXPECT_EQ(r.GetTagName(), "");
    ASSERT_TRUE(r.FindElem("q"));
    ASSERT_TRUE(r.OutOfElem());
    EXPECT_FALSE(r.FindChildElem());  // q was the child position
}

TEST(Markup, Attributes) {
    CMarkup xml;
    ASSERT_TRUE(xml.SetDoc(kSample));
    ASSERT_TRUE(xml.FindElem("a"));
    EXPECT_EQ(xml.GetAttrib("kind"), "outer");
    EXPECT_EQ(xml.GetAttrib("n"), "1");
    EXPECT_EQ(xml.GetAttrib("missing"), "");
    EXPECT_EQ(xml.GetAttrib("kin"), "");
    EXPECT_EQ(xml.GetAttrib(nullptr), "");
    ASSERT_TRUE(xml.FindChildElem("c"));
    ASSERT_TRUE(xml.IntoElem());
    EXPECT_EQ(xml.GetAttrib("y"), "two \"words\"");
    EXPECT_EQ(xml.GetAttrib("e"), "a < b");
}

TEST(Markup, WellFormedness) {
    CMarkup xml;
    EXPECT_FALSE(xml.SetDoc("<a/>\n<b/>"));
    EXPECT_EQ(xml.GetResult(), "root_has_sibling");
    EXPECT_FALSE(xml.FindElem());
    EXPECT_FALSE(xml.SetDoc("<?xml version=\"1.0\"?><!-- only -->"));
    EXPECT_EQ(xml.GetResult(), "no_root_element");
    EXPECT_FALSE(xml.SetDoc(nullptr));

    const char* bad[] = {"<a>", "<a", "<", "<>", "<a x=\"1>", "<a x=1/>", "<a x/>",
                         "<a x='1'y='2'/>", "<a / >", "<a></b>", "<a><b></a></b>", "</a>",
                         "<a/>text", "<a><!-- x</a>", "<a><![CDATA[x</a>", "<?xml", "<a><b/></a",
                         "<!DOCTYPE a", "<a/><!DOCTYPE a>"};
    for (const char* text : bad) {
        EXPECT_FALSE(xml.SetDoc(text)) << text;
        EXPECT_FALSE(xml.FindChildElem()) << text;
    }
    std::string deep;
    for (int i = 0; i < 100000; ++i) deep += "<d>";
    for (int i = 0; i < 100000; ++i) deep += "</d>";
    EXPECT_TRUE(xml.SetDoc(deep.c_str()));  // no recursion
}

TEST(Markup, MutatedDocumentsStayInsideTheText) {
    const std::string base = kSample;
    std::mt19937 rng(12345);
    const char alphabet[] = "<>/=\"' !?-[]ab\n";
    for (int round = 0; round < 3000 + int(base.size()); ++round) {
        std::string doc = base.substr(0, round < int(base.size()) ? round : base.size());
        for (int e = round < int(base.size()) ? 0 : 1 + rng() % 4; e > 0; --e)
            doc[rng() % doc.size()] = alphabet[rng() % (sizeof alphabet - 1)];
        CMarkup xml;
        if (xml.SetDoc(doc.c_str())) {
            EXPECT_TRUE(xml.FindElem());
        }
        Children(xml);
        xml.AddElem("n");
        xml.SetAttrib("k", 1);
    }
}

TEST(Markup, WriteSaveAndLoadBack) {
    std::string dir = (std::filesystem::temp_directory_path() / "markup_XXXXXX").string();
    ASSERT_NE(mkdtemp(dir.data()), nullptr);
    const std::string file = dir + "/out.xml";

    CMarkup out;
    EXPECT_FALSE(out.SetDoc("<?xml version=\"1.0\" encoding=\"UTF-8\"?>"));
    EXPECT_FALSE(out.SetAttrib("k", 1));  // no main position
    ASSERT_TRUE(out.AddElem("list"));
    EXPECT_FALSE(out.AddElem("second"));  // one root only
    ASSERT_TRUE(out.SetAttrib("k", 3));
    ASSERT_TRUE(out.IntoElem());
    ASSERT_TRUE(out.AddElem("item"));
    ASSERT_TRUE(out.SetAttrib("k", -1));
    ASSERT_TRUE(out.AddElem("item", "a<b"));
    ASSERT_TRUE(out.IntoElem());  // into an element with text, no children
    ASSERT_TRUE(out.AddElem("sub"));
    ASSERT_TRUE(out.OutOfElem());
    ASSERT_TRUE(out.SetAttrib("k", 5));
    ASSERT_TRUE(out.SetAttrib("k", 20));  // replaces
    EXPECT_FALSE(out.AddElem("bad name"));
    EXPECT_FALSE(out.SetAttrib("", 1));
    ASSERT_TRUE(out.OutOfElem());
    ASSERT_TRUE(out.Save(file.c_str()));
    EXPECT_FALSE(out.Save((dir + "/no/such/dir.xml").c_str()));

    CMarkup in;
    ASSERT_TRUE(in.Load(file.c_str())) << in.GetResult() << "\n" << out.GetDoc();
    ASSERT_TRUE(in.FindElem("list"));
    EXPECT_EQ(in.GetAttrib("k"), "3");
    EXPECT_EQ(Children(in), "item-1 item20 ");
    ASSERT_TRUE(in.SetDoc("<r><e/></r>"));
    ASSERT_TRUE(in.FindChildElem());
    ASSERT_TRUE(in.IntoElem());
    ASSERT_TRUE(in.IntoElem());  // into the empty element <e/>
    ASSERT_TRUE(in.AddElem("x"));
    CMarkup again;
    ASSERT_TRUE(again.SetDoc(in.GetDoc().c_str()));
    ASSERT_TRUE(again.FindChildElem("e"));
    ASSERT_TRUE(again.IntoElem());
    EXPECT_EQ(Children(again), "x ");

    EXPECT_FALSE(in.Load((dir + "/absent.xml").c_str()));
    EXPECT_FALSE(in.FindElem());
    std::filesystem::remove_all(dir);
}
