// Writes the seed corpora of the fuzz targets: small valid inputs of every
// kind each target parses. Run it after changing a wire format or a target:
//
//   make_fuzz_corpus <repository>/fuzz/corpus
//
// Existing files of the same names are replaced; nothing else is touched.
#include <sys/stat.h>

#include <zlib.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz/DcFuzz.h"
#include "fuzz/DecoderTemplates.h"
#include "fuzz/QxsfFuzz.h"

namespace {

std::string g_root;

void Put(const std::string& target, const std::string& name, const std::string& bytes) {
    const std::string dir = g_root + "/" + target;
    mkdir(dir.c_str(), 0775);
    const std::string path = dir + "/" + name;
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f || std::fwrite(bytes.data(), 1, bytes.size(), f) != bytes.size()) {
        std::perror(path.c_str());
        std::exit(1);
    }
    std::fclose(f);
}

std::string Str(const std::vector<char>& v) { return std::string(v.begin(), v.end()); }
std::vector<char> Vec(const std::string& s) { return std::vector<char>(s.begin(), s.end()); }

std::string Deflate(const std::string& in) {
    uLongf n = compressBound(in.size());
    std::string out(n, '\0');
    if (compress(reinterpret_cast<Bytef*>(&out[0]), &n, reinterpret_cast<const Bytef*>(in.data()), in.size()) != Z_OK)
        std::exit(1);
    out.resize(n);
    return out;
}

template <class T>
std::string Le(T v) {
    return std::string(reinterpret_cast<const char*>(&v), sizeof v);
}
std::string U8(unsigned v) { return std::string(1, static_cast<char>(v)); }
std::string U16(unsigned v) { return Le(static_cast<uint16_t>(v)); }
std::string I32(int v) { return Le(static_cast<int32_t>(v)); }
std::string CStr(const std::string& s) { return s + '\0'; }
std::string WStr(const std::u32string& s) {
    std::string out;
    for (char32_t c : s) out += Le(static_cast<uint32_t>(c));
    return out + Le(uint32_t{0});
}

// ---- text formats -------------------------------------------------------------

void IniSeeds() {
    Put("ini", "config.ini",
        "[CONFIG]\nLog=1\nSubscribe=1\nDeltaQuot=0\nLevel=2\nDomesticExchanges=0\n"
        "[EXCHANGE]\n3000=INE\n[BRCODE]\nINE=1\n[MARKET]\nSHFE=[\"shfe\",\"ine\"]\n");
    Put("ini", "login.ini",
        "; header comment\n# another\n[LoginInfo]\nUser=trader\nPassword=pw123\n;section comment\n"
        "[shfe]\nlowtime=100\nhightime=200\n");
    Put("ini", "literal.ini", "before=1\nkey = value\n[sec\n[a]]\n=empty name\na=b;c\r\n[A]\nA=1,2\nLevel=12abc\n");
}

void MarkupSeeds() {
    Put("markup", "templates.xml", orvex_fuzz::kDecoderTemplates);
    Put("markup", "access.xml",
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<qxmkts>\n  <qxmkt family=\"12\" groups=\"3\"/>\n"
        "  <qxmkt family='15'/>\n</qxmkts>\n");
    Put("markup", "document.xml",
        "\xEF\xBB\xBF<?xml version=\"1.0\"?>\n<!-- note -->\n<!DOCTYPE a>\n<a x='1' y=\"&lt;&amp;&quot;&apos;&gt;&#65;\">"
        "<b/><c>text &amp; more<d z = '2' /></c><e></e>\xE4\xB8\xAD</a>\n");
}

void AccessSeeds() {
    Put("access", "list.xml",
        "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<qxmkts>\n  <qxmkt family=\"12\" groups=\"3\"/>\n"
        "  <qxmkt family=\"15\"/>\n  <qxmkt groups=\"4\"/>\n  <note family=\"99\"/>\n"
        "  <qxmkt family=\"8\" groups=\"-7\"/>\n  <qxmkt family=\"0\"/>\n  <qxmkt family=\"9\"/>\n</qxmkts>\n");
    Put("access", "all.xml", "<qxmkts allaccess=\"1\"/>");
    Put("access", "none.xml", "<qxmkts allaccess=\"0\"><qxmkt family=\"65537\" groups=\"x\"/></qxmkts>");
}

// ---- template packages ---------------------------------------------------------

// Bodies of the packages of kDecoderTemplates: every type, masks, arrays,
// wide text in a price slot.
std::vector<std::string> DecoderBodies() {
    // 1: every type, no mask.
    std::string all = U16(1) + U8(0x81) + U16(0xBEEF) + I32(-5) + Le(1.5f) + Le(2.25) + CStr("abcdefghij") +
                      WStr(U"\u4e2d\u6587") + I32(123456) + I32(93000500) + CStr("") + CStr("dflt");
    // 2: mask over the single fields, a masked array of 2 rows, an
    // unmasked array of 1 row.
    std::string masked = U16(2) + U8(2) + U8(0xFF) + U8(0xC0);
    masked += U8(7) + U16(300);
    masked += U16(2) + U8(1) + U8(0xE0);
    std::string row1 = U16(4) + Le(1.0) + CStr("row1");
    std::string row2 = U16(5) + Le(2.0) + CStr("longer row");
    masked += U16(row1.size()) + row1 + U16(row2.size()) + row2;
    masked += I32(1000) + Le(0.5f) + Le(3.0) + U8(1) + U8(2) + U8(3) + CStr("abcd") + WStr(U"\U0001F600x");
    std::string urow = I32(1) + I32(2);
    masked += U16(1) + U16(urow.size()) + urow;
    // 3: arrays only.
    std::string arrays = U16(3) + U16(1) + U8(1) + U8(0xFF);
    std::string row = U8(1) + U16(2) + I32(3) + Le(4.0f) + Le(5.0) + CStr("six") + WStr(U"7") + I32(8) + Le(9.0);
    arrays += U16(row.size()) + row;
    std::string wrow = WStr(U"ab") + CStr("cd");
    arrays += U16(1) + U16(wrow.size()) + wrow;
    // 4: wide text in a price slot, an empty array.
    std::string wide = U16(4) + U8(1) + U8(0xE0) + Le(1.0) + CStr(std::string(30, 'p')) + WStr(U"wide") + U16(0) + U16(0);
    return {all, masked, arrays, wide};
}

void DecoderSeeds() {
    const std::vector<std::string> bodies = DecoderBodies();
    const std::string& all = bodies[0];
    const std::string& masked = bodies[1];
    const std::string& arrays = bodies[2];
    const std::string& wide = bodies[3];
    Put("decoder", "all_types.bin", all);
    Put("decoder", "masked.bin", masked);
    Put("decoder", "arrays.bin", arrays);
    Put("decoder", "wide.bin", wide);
    std::string stream;
    for (const std::string& b : {all, masked, arrays, wide, U16(5), U16(77) + "zz"})
        stream += Le(static_cast<uint32_t>(b.size())) + b;
    Put("decoder", "stream.bin", stream);
}

// ---- file service --------------------------------------------------------------

void QxsfSeeds() {
    using namespace orvex_fuzz;
    const std::vector<RequestedFile>& files = RequestedFiles();
    // Login answer, then a list naming one new and one requested file.
    std::string login = Str(Package(1, QXSF_CMD_LOGIN, {}));
    std::vector<char> list = ListPage("contract/", 4, 1,
                                      {{"shfe_base_9.json", "{}", {1, 1}}, {"readme.txt", "x", {0, 0}},
                                       {"shfe_base_1.json", files[0].content, files[0].time}});
    Put("qxsf_receive", "login_list.bin", login + Str(Package(2, static_cast<char>(QXSF_CMD_MKTLIST), list)));
    // The same list compressed, in two pages.
    std::vector<char> first = ListPage("contract", 2, 0, {{"dce_base_1.json", "a", {5, 6}}});
    std::vector<char> second = ListPage("contract", 2, 1, {{"dce_base_2.json", "", {1, 2}}});
    const std::string packed = Deflate(Str(second));
    Put("qxsf_receive", "pages_compressed.bin",
        Str(Package(2, static_cast<char>(QXSF_CMD_MKTLIST), first)) +
            Str(Package(2, static_cast<char>(QXSF_CMD_MKTLIST), Vec(packed), true)));
    // A whole transfer of the first requested file.
    const std::string content = files[0].content;
    std::string transfer = Str(Package(1, QXSF_CMD_FILE, TransferInfo(files[0].path, static_cast<int>(content.size()))));
    transfer += Str(Package(1, QXSF_CMD_FILE, TransferBlock(0, 0, content)));
    transfer += Str(Package(1, QXSF_CMD_FILE, TransferEnd(0)));
    Put("qxsf_receive", "transfer.bin", transfer);
    // Transfers of an empty file and of a name that leaves the cache, an
    // error notice and a command nobody knows.
    std::string mixed = Str(Package(9, QXSF_CMD_ERROR, {}));
    mixed += Str(Package(2, QXSF_CMD_FILE, TransferInfo(files[1].path, 0)));
    mixed += Str(Package(2, QXSF_CMD_FILE, TransferEnd(0)));
    mixed += Str(Package(3, QXSF_CMD_FILE, TransferInfo(files[2].path, 1)));
    mixed += Str(Package(5, 77, Vec("????")));
    mixed += Str(Package(4, QXSF_CMD_FILE, TransferInfo(files[3].path, 3)));
    mixed += Str(Package(4, QXSF_CMD_FILE, TransferBlock(1, 2, "xyz")));
    Put("qxsf_receive", "mixed.bin", mixed);
}

void ContractSeeds() {
    Put("contract", "contracts.json", orvex_fuzz::RequestedFiles()[0].content);
    Put("contract", "types.json",
        "{\"ContractData\":[{\"2\":\"a\",\"13\":1e308,\"4\":-2147483648,\"5\":4294967296,\"2017\":1.5,\"2018\":\"7\"},"
        "{\"2\":\"" + std::string(40, 'L') + "\",\"13\":\"x\"},[],null,{\"2\":5},{}],\"x\":{}}");
    Put("contract", "not_array.json", "{\"ContractData\":{\"2\":\"a\"}}");
}

// ---- quote server --------------------------------------------------------------

std::string PushRow(uint16_t market, const std::string& code, unsigned second) {
    using namespace orvex_test;
    PushedRow row(market, code, orvex_fuzz::kDay, PackQuoteTime(9, 30, second, 10));
    row.Price(kPushLast, 1234).Price(kPushHigh, 1300).Volume(20).OpenInterest(7).Turnover(99.5);
    row.Bid(1, 1230, 4).Ask(1, 1240, 5).Bid(7, 1, 1).Ask(3, 1250, 6);
    return row.Encode();
}

std::string Dynainfo() {
    using namespace orvex_test;
    MarketStatusRow same{2000, orvex_fuzz::kDay, 2, 0, orvex_fuzz::kDay, 93100000};
    MarketStatusRow next{2100, orvex_fuzz::kDay + 1, 1, 3, orvex_fuzz::kDay + 1, 85900000};
    std::string body = DynaStatusRecord(1, same) + DynaStatusRecord(2, next);
    body += DynaRecord(3, kDynaPush, PushRow(2000, "cu2401", 5));
    body += DynaRecord(4, kDynaPush, PushRow(3000, "al2402", 6));
    body += DynaRecord(5, kDynaPush, PushRow(2001, "unknown", 7));
    body += DynaTemplateRecord(6, 1, "\x01\x02");
    body += DynaRecord(7, 9, "??");
    // Template packages of the fuzz targets' template table, whole and cut.
    uint32_t sequence = 8;
    for (const std::string& package : DecoderBodies()) {
        body += DynaTemplateRecord(sequence++, 0, package);
        body += DynaTemplateRecord(sequence++, 0, package.substr(0, package.size() / 2));
    }
    return body;
}

void DcSeeds() {
    using namespace orvex_test;
    using orvex_fuzz::DcFrame;
    const std::string dyna = Dynainfo();
    Put("dc_receive", "dynainfo.bin", DcFrame(kCmdDynainfo, dyna) + DcFrame(kCmdHeartBeat, ""));
    Put("dc_receive", "compressed.bin", DcFrame(kCmdDynainfo, Deflate(dyna), true));
    std::vector<QuoteRow> rows = {orvex_fuzz::ModelQuote(2000, "cu2401", 2000), orvex_fuzz::ModelQuote(2000, "nope", 1)};
    rows[1].date = 0;
    std::vector<NameRow> names = {{"renamed", "cu2401", "CU2401", 100, 5, 0}, {"new", "rb2405", "RB2405", 1, 10, 0}};
    Put("dc_receive", "snapshot.bin",
        DcFrame(kCmdNameTable, NameTableBody(2000, 3, 0, names)) +
            DcFrame(kCmdQuotation, QuotationBody(2, 1, 2000, 2, 0, rows)) +
            DcFrame(kCmdMarketStatus, MarketStatusBody(1, 0, {{2200, orvex_fuzz::kDay, 4, 0, orvex_fuzz::kDay, 1}})));
    Put("dc_receive", "relogin.bin",
        DcFrame(kCmdLoginRsp1, LoginAnswer1Body(2, 0, "again", 1, {{2000, 0}, {2100, -1}})) +
            DcFrame(kCmdLoginRsp, LoginAnswerBody(3, 0, orvex_fuzz::ModelMarkets())) +
            DcFrame(kCmdLoginRsp, LoginAnswerBody(4, 9, {}, "refused")));

    // One frame per command for the direct target: selector, then body.
    auto frame = [](unsigned selector, const std::string& body) { return U8(selector) + body; };
    Put("dc_frame", "names.bin", frame(0, NameTableBody(2100, 2, 0, names)));
    Put("dc_frame", "status.bin",
        frame(1, MarketStatusBody(2, 0, {{2000, orvex_fuzz::kDay, 1, 0, orvex_fuzz::kDay, 100000000},
                                         {4000, orvex_fuzz::kDay, 0, 0, orvex_fuzz::kDay, 0}})));
    Put("dc_frame", "quotation_subscribed.bin", frame(2 | 0x20, QuotationBody(1, 0, 2000, 2, 0, rows)));
    Put("dc_frame", "login.bin", frame(3 | 0x08, LoginAnswerBody(1, 0, {2000, 2100, 5000}, "hello")));
    Put("dc_frame", "login1.bin", frame(4, LoginAnswer1Body(1, 0, "hi", 1, {{2000, 3}})));
    Put("dc_frame", "dyna_delta.bin", frame(5 | 0x10, dyna));
    Put("dc_frame", "dyna_loading.bin", frame(6 | 0x80 | 0x08, dyna));
    Put("dc_frame", "dyna_level.bin", frame(7 | 0x40 | 0x20, dyna));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <corpus directory>\n", argv[0]);
        return 2;
    }
    g_root = argv[1];
    mkdir(g_root.c_str(), 0775);
    IniSeeds();
    MarkupSeeds();
    AccessSeeds();
    DecoderSeeds();
    QxsfSeeds();
    ContractSeeds();
    DcSeeds();
    return 0;
}
