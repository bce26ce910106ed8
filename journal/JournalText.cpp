#include "journal/JournalText.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "journal/RecordFields.h"

namespace orvex {
namespace journal {

namespace {

template <typename T>
T Read(const unsigned char* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

std::string Hex(const unsigned char* p, size_t n) {
    static const char digits[] = "0123456789abcdef";
    std::string out(n * 2, '0');
    for (size_t i = 0; i < n; ++i) {
        out[2 * i] = digits[p[i] >> 4];
        out[2 * i + 1] = digits[p[i] & 15];
    }
    return out;
}

std::string CsvQuote(const std::string& s) {
    if (s.find_first_of(",\"\n\r") == std::string::npos) return s;
    std::string out = "\"";
    for (char c : s) {
        if (c == '"') out += '"';
        out += c;
    }
    return out + "\"";
}

// The value of one field as text; `json` quotes texts.
std::string Value(const FieldDesc& f, const unsigned char* record, bool json) {
    const unsigned char* p = record + f.offset;
    switch (f.type) {
        case FieldDesc::Double: return FormatDouble(Read<double>(p));
        case FieldDesc::Int: return std::to_string(Read<int>(p));
        case FieldDesc::Char: {
            const std::string s = p[0] ? GbkToUtf8(reinterpret_cast<const char*>(p), 1) : std::string();
            return json ? JsonString(s) : CsvQuote(s);
        }
        case FieldDesc::Text: {
            const std::string s = GbkToUtf8(reinterpret_cast<const char*>(p), f.size);
            return json ? JsonString(s) : CsvQuote(s);
        }
    }
    return "";
}

void AddFields(FieldList fields, const unsigned char* record, bool json, std::string* out) {
    for (const FieldDesc& f : fields) {
        if (json) {
            *out += ",\"";
            *out += f.name;
            *out += "\":";
        } else {
            *out += ',';
        }
        *out += Value(f, record, json);
    }
}

void AddEmpty(FieldList fields, std::string* out) {
    for (size_t i = 0; i < fields.count; ++i) *out += ',';
}

// Request id, flags and the two records of an answer payload.
struct Answer {
    int requestId = 0;
    uint8_t flags = 0;
    const unsigned char* record = nullptr;
    const unsigned char* info = nullptr;
};

bool SplitAnswer(const Entry& e, size_t recordSize, Answer* a) {
    if (e.size != kAnswerHead + recordSize + sizeof(COrvexWiraRspInfoField)) return false;
    a->requestId = Read<int32_t>(e.payload);
    a->flags = e.payload[4];
    a->record = e.payload + kAnswerHead;
    a->info = a->record + recordSize;
    return true;
}

void AddAnswer(const Entry& e, FieldList fields, size_t recordSize, bool json, std::string* out) {
    Answer a;
    if (!SplitAnswer(e, recordSize, &a)) {
        if (json) *out += ",\"Size\":" + std::to_string(e.size);
        return;
    }
    const bool record = a.flags & kHasRecord, info = a.flags & kHasInfo;
    if (json) {
        if (record) AddFields(fields, a.record, true, out);
        if (info) AddFields(InfoFields(), a.info, true, out);
        *out += ",\"RequestID\":" + std::to_string(a.requestId);
        *out += std::string(",\"IsLast\":") + ((a.flags & kIsLast) ? "true" : "false");
    } else {
        *out += std::string(",") + (record ? "1" : "0");
        if (record) AddFields(fields, a.record, false, out);
        else AddEmpty(fields, out);
        if (info) AddFields(InfoFields(), a.info, false, out);
        else AddEmpty(InfoFields(), out);
        *out += "," + std::to_string(a.requestId) + "," + ((a.flags & kIsLast) ? "1" : "0");
    }
}

std::string Columns(FieldList fields) {
    std::string out;
    for (const FieldDesc& f : fields) out += std::string(",") + f.name;
    return out;
}

}  // namespace

std::string FormatDouble(double v) {
    if (!std::isfinite(v)) return "null";
    char text[40];
    std::snprintf(text, sizeof(text), "%.17g", v);
    return text;
}

std::string JsonString(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        switch (c) {
            case '"': out += "\\\""; break;
            case '\\': out += "\\\\"; break;
            case '\n': out += "\\n"; break;
            case '\r': out += "\\r"; break;
            case '\t': out += "\\t"; break;
            default:
                if (c < 0x20) {
                    char esc[8];
                    std::snprintf(esc, sizeof(esc), "\\u%04x", c);
                    out += esc;
                } else {
                    out += static_cast<char>(c);
                }
        }
    }
    return out + "\"";
}

void AppendJson(const Entry& e, std::string* out) {
    const char* name = KindName(e.kind);
    *out += "{\"kind\":";
    *out += name ? JsonString(name) : std::to_string(e.kind);
    *out += ",\"time\":" + std::to_string(e.time);
    switch (e.kind) {
        case kDepth:
            if (e.size == sizeof(COrvexWiraDepthMarketDataField)) AddFields(DepthFields(), e.payload, true, out);
            break;
        case kStatus:
            if (e.size == sizeof(COrvexWiraMarketStatusField)) AddFields(StatusFields(), e.payload, true, out);
            break;
        case kInstrument: AddAnswer(e, InstrumentFields(), sizeof(COrvexWiraInstrumentField), true, out); break;
        case kLogin: AddAnswer(e, LoginFields(), sizeof(COrvexWiraRspUserLoginField), true, out); break;
        case kTemplate:
            *out += ",\"PackageID\":" + std::to_string(e.aux) + ",\"Data\":\"" + Hex(e.payload, e.size) + "\"";
            break;
        case kLost:
            if (e.size >= 4) *out += ",\"Reason\":" + std::to_string(Read<int32_t>(e.payload));
            break;
        case kTemplates:
            *out += ",\"Text\":" + JsonString(std::string(reinterpret_cast<const char*>(e.payload), e.size));
            break;
        case kLinked: break;
        default: *out += ",\"Size\":" + std::to_string(e.size); break;
    }
    *out += '}';
}

std::string CsvHeader(uint16_t kind) {
    std::string out = "kind,time";
    switch (kind) {
        case kDepth: return out + Columns(DepthFields());
        case kStatus: return out + Columns(StatusFields());
        case kInstrument: return out + ",HasRecord" + Columns(InstrumentFields()) + Columns(InfoFields()) + ",RequestID,IsLast";
        case kLogin: return out + ",HasRecord" + Columns(LoginFields()) + Columns(InfoFields()) + ",RequestID,IsLast";
        case kTemplate: return out + ",PackageID,Data";
        case kLost: return out + ",Reason";
        default: return out;
    }
}

void AppendCsv(const Entry& e, std::string* out) {
    const char* name = KindName(e.kind);
    *out += name ? name : std::to_string(e.kind);
    *out += "," + std::to_string(e.time);
    switch (e.kind) {
        case kDepth:
            if (e.size == sizeof(COrvexWiraDepthMarketDataField)) AddFields(DepthFields(), e.payload, false, out);
            break;
        case kStatus:
            if (e.size == sizeof(COrvexWiraMarketStatusField)) AddFields(StatusFields(), e.payload, false, out);
            break;
        case kInstrument: AddAnswer(e, InstrumentFields(), sizeof(COrvexWiraInstrumentField), false, out); break;
        case kLogin: AddAnswer(e, LoginFields(), sizeof(COrvexWiraRspUserLoginField), false, out); break;
        case kTemplate: *out += "," + std::to_string(e.aux) + "," + Hex(e.payload, e.size); break;
        case kLost:
            if (e.size >= 4) *out += "," + std::to_string(Read<int32_t>(e.payload));
            break;
        default: break;
    }
}

std::string EntryInstrument(const Entry& e) {
    if (e.kind == kDepth && e.size == sizeof(COrvexWiraDepthMarketDataField))
        return std::string(reinterpret_cast<const char*>(e.payload) + offsetof(COrvexWiraDepthMarketDataField, InstrumentID),
                           strnlen(reinterpret_cast<const char*>(e.payload) + offsetof(COrvexWiraDepthMarketDataField, InstrumentID), 31));
    Answer a;
    if (e.kind == kInstrument && SplitAnswer(e, sizeof(COrvexWiraInstrumentField), &a) && (a.flags & kHasRecord))
        return std::string(reinterpret_cast<const char*>(a.record), strnlen(reinterpret_cast<const char*>(a.record), 31));
    return "";
}

std::string EntryExchange(const Entry& e) {
    const unsigned char* p = nullptr;
    if (e.kind == kDepth && e.size == sizeof(COrvexWiraDepthMarketDataField))
        p = e.payload + offsetof(COrvexWiraDepthMarketDataField, ExchangeID);
    else if (e.kind == kStatus && e.size == sizeof(COrvexWiraMarketStatusField))
        p = e.payload + offsetof(COrvexWiraMarketStatusField, ExchangeID);
    Answer a;
    if (e.kind == kInstrument && SplitAnswer(e, sizeof(COrvexWiraInstrumentField), &a) && (a.flags & kHasRecord))
        p = a.record + offsetof(COrvexWiraInstrumentField, ExchangeID);
    if (!p) return "";
    return std::string(reinterpret_cast<const char*>(p), strnlen(reinterpret_cast<const char*>(p), 9));
}

}  // namespace journal
}  // namespace orvex
