// Journal entries as text: every field of every record comes back exactly
// from the JSON line (doubles to the last bit, empty prices, GBK names as
// UTF-8), answers carry their request id and flags, CSV rows have the
// header's columns.
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <cfloat>
#include <cstring>
#include <string>

#include "journal/JournalFormat.h"
#include "journal/JournalText.h"
#include "journal/RecordFields.h"
#include "support/JournalKit.h"

namespace {

using namespace orvex::journal;

Entry MakeEntry(uint16_t kind, const void* payload, uint32_t size, uint16_t aux = 0) {
    Entry e;
    e.kind = kind;
    e.aux = aux;
    e.time = 1735779600123456789;
    e.payload = static_cast<const unsigned char*>(payload);
    e.size = size;
    return e;
}

// Rebuilds a record from a JSON object by the field table, the way a
// consumer of the text would.
template <typename R>
R FromJson(const rapidjson::Value& v, FieldList fields, const char* prefix = "") {
    R r;
    std::memset(&r, 0, sizeof(r));
    unsigned char* p = reinterpret_cast<unsigned char*>(&r);
    for (const FieldDesc& f : fields) {
        const std::string name = std::string(prefix) + f.name;
        EXPECT_TRUE(v.HasMember(name.c_str())) << name;
        if (!v.HasMember(name.c_str())) continue;
        const rapidjson::Value& x = v[name.c_str()];
        switch (f.type) {
            case FieldDesc::Double: {
                const double d = x.GetDouble();
                std::memcpy(p + f.offset, &d, 8);
                break;
            }
            case FieldDesc::Int: {
                const int i = x.GetInt();
                std::memcpy(p + f.offset, &i, 4);
                break;
            }
            case FieldDesc::Char:
            case FieldDesc::Text:
                std::memcpy(p + f.offset, x.GetString(), std::min<size_t>(x.GetStringLength(), f.size));
                break;
        }
    }
    return r;
}

TEST(JournalText, DepthRecordRoundTripsThroughJsonExactly) {
    COrvexWiraDepthMarketDataField d = orvex_test::MakeDepth("IF2501", "CFFEX", 12345);
    d.LastPrice = 0.1 + 0.2;          // 0.30000000000000004
    d.AskPrice5 = DBL_MAX;            // an empty level
    d.BidPrice5 = 0.0;                // a price marked as having no value
    std::string line;
    AppendJson(MakeEntry(kDepth, &d, sizeof(d)), &line);
    rapidjson::Document doc;
    ASSERT_FALSE(doc.Parse(line.c_str()).HasParseError()) << line;
    EXPECT_STREQ("depth", doc["kind"].GetString());
    EXPECT_EQ(1735779600123456789, doc["time"].GetInt64());
    const COrvexWiraDepthMarketDataField back = FromJson<COrvexWiraDepthMarketDataField>(doc, DepthFields());
    EXPECT_EQ(0, std::memcmp(&d, &back, sizeof(d))) << line;
    EXPECT_EQ(DepthFields().count + 2, doc.MemberCount());
}

TEST(JournalText, GbkTextsBecomeUtf8AndBadBytesAreMarked) {
    // "沪铜2501" in GBK.
    EXPECT_EQ("\xE6\xB2\xAA\xE9\x93\x9C" "2501", GbkToUtf8("\xBB\xA6\xCD\xAD" "2501", 21));
    EXPECT_EQ("ab", GbkToUtf8("ab\0cd", 5));
    EXPECT_EQ("abc", GbkToUtf8("abcdef", 3));   // no NUL within the width
    // A lead byte cut off by the width, then plain text.
    EXPECT_EQ("x\xEF\xBF\xBD", GbkToUtf8("x\xBB", 2));
    EXPECT_EQ("\"a\\\"b\\\\c\\n\\u0001\"", JsonString("a\"b\\c\n\x01"));
}

TEST(JournalText, AnswersCarryRecordResultRequestIdAndLast) {
    unsigned char payload[kInstrumentPayload] = {0};
    COrvexWiraInstrumentField inst;
    std::memset(&inst, 0, sizeof(inst));
    std::strcpy(inst.InstrumentID, "cu2501");
    std::strcpy(inst.ExchangeID, "SHFE");
    std::memcpy(inst.InstrumentName, "\xBB\xA6\xCD\xAD" "2501", 8);
    inst.VolumeMultiple = 5;
    inst.Number13 = 0.5;
    const int32_t id = 42;
    std::memcpy(payload, &id, 4);
    payload[4] = kHasRecord | kHasInfo | kIsLast;
    std::memcpy(payload + kAnswerHead, &inst, sizeof(inst));
    std::string line;
    AppendJson(MakeEntry(kInstrument, payload, sizeof(payload)), &line);
    rapidjson::Document doc;
    ASSERT_FALSE(doc.Parse(line.c_str()).HasParseError()) << line;
    EXPECT_STREQ("instrument", doc["kind"].GetString());
    EXPECT_STREQ("cu2501", doc["InstrumentID"].GetString());
    EXPECT_STREQ("\xE6\xB2\xAA\xE9\x93\x9C" "2501", doc["InstrumentName"].GetString());
    EXPECT_EQ(5, doc["VolumeMultiple"].GetInt());
    EXPECT_EQ(0.5, doc["Number13"].GetDouble());
    EXPECT_EQ(0, doc["ErrorID"].GetInt());
    EXPECT_EQ(42, doc["RequestID"].GetInt());
    EXPECT_TRUE(doc["IsLast"].GetBool());
    EXPECT_EQ("cu2501", EntryInstrument(MakeEntry(kInstrument, payload, sizeof(payload))));

    // An error answer: no record fields, the result's.
    payload[4] = kHasInfo | kIsLast;
    COrvexWiraRspInfoField info;
    std::memset(&info, 0, sizeof(info));
    info.ErrorID = 1;
    std::memcpy(payload + kAnswerHead + sizeof(inst), &info, sizeof(info));
    line.clear();
    AppendJson(MakeEntry(kInstrument, payload, sizeof(payload)), &line);
    ASSERT_FALSE(doc.Parse(line.c_str()).HasParseError()) << line;
    EXPECT_FALSE(doc.HasMember("InstrumentID"));
    EXPECT_EQ(1, doc["ErrorID"].GetInt());
    EXPECT_EQ("", EntryInstrument(MakeEntry(kInstrument, payload, sizeof(payload))));
}

TEST(JournalText, OtherKindsAndCsvColumns) {
    std::string line;
    const int32_t reason = 4097;
    AppendJson(MakeEntry(kLost, &reason, 4), &line);
    EXPECT_EQ("{\"kind\":\"lost\",\"time\":1735779600123456789,\"Reason\":4097}", line);
    line.clear();
    AppendJson(MakeEntry(kLinked, nullptr, 0), &line);
    EXPECT_EQ("{\"kind\":\"linked\",\"time\":1735779600123456789}", line);
    line.clear();
    const unsigned char tmpl[3] = {0x01, 0xab, 0xff};
    AppendJson(MakeEntry(kTemplate, tmpl, 3, 901), &line);
    EXPECT_EQ("{\"kind\":\"template\",\"time\":1735779600123456789,\"PackageID\":901,\"Data\":\"01abff\"}", line);
    line.clear();
    AppendJson(MakeEntry(77, tmpl, 3), &line);   // a kind of a later version
    EXPECT_EQ("{\"kind\":77,\"time\":1735779600123456789,\"Size\":3}", line);

    auto columns = [](const std::string& s) {
        size_t n = 1;
        bool quoted = false;
        for (char c : s) {
            if (c == '"') quoted = !quoted;
            if (c == ',' && !quoted) ++n;
        }
        return n;
    };
    COrvexWiraDepthMarketDataField d = orvex_test::MakeDepth("a,b", "DCE", 3);
    std::string row;
    AppendCsv(MakeEntry(kDepth, &d, sizeof(d)), &row);
    EXPECT_EQ(columns(CsvHeader(kDepth)), columns(row)) << row;
    EXPECT_NE(std::string::npos, row.find(",\"a,b\",")) << row;
    COrvexWiraMarketStatusField s;
    std::memset(&s, 0, sizeof(s));
    std::strcpy(s.ExchangeID, "SHFE");
    s.MarketStatus = '2';
    row.clear();
    AppendCsv(MakeEntry(kStatus, &s, sizeof(s)), &row);
    EXPECT_EQ(columns(CsvHeader(kStatus)), columns(row)) << row;
    EXPECT_EQ("status,1735779600123456789,SHFE,,,,2", row);
}

}  // namespace
