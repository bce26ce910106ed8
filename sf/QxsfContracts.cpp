// CQXSFThread: loading the verified contract files into instrument records.
//
// A contract file is a JSON object whose member "ContractData" is an array
// of objects with decimal member names: "2" the instrument code, "13" a
// double, "4", "5", "2017" and "2018" integers kept as decimal text.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <rapidjson/document.h>

#include "sf/QXSFThread.h"

namespace {

int IntMember(const rapidjson::Value& item, const char* key) {
    auto it = item.FindMember(key);
    if (it == item.MemberEnd() || !it->value.IsInt()) return 0;
    return it->value.GetInt();
}

// Decimal text of a non-zero value; a zero value leaves the field empty.
void PutDecimal(char* field, size_t n, int value) {
    if (value != 0) std::snprintf(field, n, "%d", value);
}

COrvexWiraInstrumentField ReadContract(const rapidjson::Value& item) {
    COrvexWiraInstrumentField record;
    std::memset(&record, 0, sizeof(record));
    auto code = item.FindMember("2");
    if (code != item.MemberEnd() && code->value.IsString()) {
        std::strncpy(record.InstrumentID, code->value.GetString(), sizeof(record.InstrumentID) - 1);
    }
    auto number = item.FindMember("13");
    if (number != item.MemberEnd() && number->value.IsNumber()) record.Number13 = number->value.GetDouble();
    PutDecimal(record.Text4, sizeof(record.Text4), IntMember(item, "4"));
    PutDecimal(record.Text5, sizeof(record.Text5), IntMember(item, "5"));
    PutDecimal(record.Text2017, sizeof(record.Text2017), IntMember(item, "2017"));
    PutDecimal(record.Text2018, sizeof(record.Text2018), IntMember(item, "2018"));
    return record;
}

}  // namespace

void CQXSFThread::LoadMktField(QxsfContractMap& out) {
    std::vector<std::string> names;
    GetFiles(names);
    for (const std::string& name : names) {
        auto market = m_mapMarkets.find(GetMkt(name.c_str()));
        if (market == m_mapMarkets.end()) continue;
        std::map<std::string, COrvexWiraInstrumentField>& contracts = out[market->second];

        const std::string path = "./cache/" + name;
        FILE* f = std::fopen(path.c_str(), "r+");
        if (f == nullptr) {
            char text[512];
            std::snprintf(text, sizeof(text), "open %s error!", path.c_str());
            OnRspInstrument(1, text, false);
            continue;
        }
        std::string text;
        char piece[1024];
        size_t got;
        while ((got = std::fread(piece, 1, 1023, f)) > 0) text.append(piece, got);
        std::fclose(f);

        rapidjson::Document doc;
        doc.Parse(text.c_str());
        if (doc.HasParseError() || !doc.IsObject() || !doc.HasMember("ContractData")) {
            OnRspInstrument(0, "read file error!", true);
            continue;
        }
        const rapidjson::Value& data = doc["ContractData"];
        if (!data.IsArray()) continue;
        for (rapidjson::SizeType i = 0; i < data.Size(); ++i) {
            if (!data[i].IsObject()) continue;
            COrvexWiraInstrumentField record = ReadContract(data[i]);
            // The first record of an instrument code wins.
            contracts.emplace(record.InstrumentID, record);
        }
    }
}
