#include "journal/RecordFields.h"

#include <iconv.h>

#include <cerrno>
#include <cstring>

#include "OrvexWiraMdStruct.h"

namespace orvex {
namespace journal {

namespace {

#define F(S, N, T) {#N, T, offsetof(S, N), sizeof(S::N)}
const FieldDesc kDepthFields[] = {
    F(COrvexWiraDepthMarketDataField, TradingDay, FieldDesc::Text),
    F(COrvexWiraDepthMarketDataField, InstrumentID, FieldDesc::Text),
    F(COrvexWiraDepthMarketDataField, ExchangeID, FieldDesc::Text),
    F(COrvexWiraDepthMarketDataField, ExchangeInstID, FieldDesc::Text),
    F(COrvexWiraDepthMarketDataField, LastPrice, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, PreSettlementPrice, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, PreClosePrice, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, PreOpenInterest, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, OpenPrice, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, HighestPrice, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, LowestPrice, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, Volume, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, Turnover, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, OpenInterest, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, ClosePrice, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, SettlementPrice, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, UpperLimitPrice, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, LowerLimitPrice, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, PreDelta, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, CurrDelta, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, UpdateTime, FieldDesc::Text),
    F(COrvexWiraDepthMarketDataField, UpdateMillisec, FieldDesc::Int),
    F(COrvexWiraDepthMarketDataField, BidPrice1, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, BidVolume1, FieldDesc::Int),
    F(COrvexWiraDepthMarketDataField, AskPrice1, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, AskVolume1, FieldDesc::Int),
    F(COrvexWiraDepthMarketDataField, BidPrice2, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, BidVolume2, FieldDesc::Int),
    F(COrvexWiraDepthMarketDataField, AskPrice2, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, AskVolume2, FieldDesc::Int),
    F(COrvexWiraDepthMarketDataField, BidPrice3, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, BidVolume3, FieldDesc::Int),
    F(COrvexWiraDepthMarketDataField, AskPrice3, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, AskVolume3, FieldDesc::Int),
    F(COrvexWiraDepthMarketDataField, BidPrice4, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, BidVolume4, FieldDesc::Int),
    F(COrvexWiraDepthMarketDataField, AskPrice4, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, AskVolume4, FieldDesc::Int),
    F(COrvexWiraDepthMarketDataField, BidPrice5, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, BidVolume5, FieldDesc::Int),
    F(COrvexWiraDepthMarketDataField, AskPrice5, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, AskVolume5, FieldDesc::Int),
    F(COrvexWiraDepthMarketDataField, AveragePrice, FieldDesc::Double),
    F(COrvexWiraDepthMarketDataField, ActionDay, FieldDesc::Text),
};
const FieldDesc kStatusFields[] = {
    F(COrvexWiraMarketStatusField, ExchangeID, FieldDesc::Text),
    F(COrvexWiraMarketStatusField, TradingDay, FieldDesc::Text),
    F(COrvexWiraMarketStatusField, SecondDay, FieldDesc::Text),
    F(COrvexWiraMarketStatusField, UpdateTime, FieldDesc::Text),
    F(COrvexWiraMarketStatusField, MarketStatus, FieldDesc::Char),
};
const FieldDesc kInstrumentFields[] = {
    F(COrvexWiraInstrumentField, InstrumentID, FieldDesc::Text),
    F(COrvexWiraInstrumentField, ExchangeID, FieldDesc::Text),
    F(COrvexWiraInstrumentField, InstrumentName, FieldDesc::Text),
    F(COrvexWiraInstrumentField, ExchangeInstID, FieldDesc::Text),
    F(COrvexWiraInstrumentField, Reserved1, FieldDesc::Text),
    F(COrvexWiraInstrumentField, VolumeMultiple, FieldDesc::Int),
    F(COrvexWiraInstrumentField, Number13, FieldDesc::Double),
    F(COrvexWiraInstrumentField, Reserved2, FieldDesc::Text),
    F(COrvexWiraInstrumentField, Text4, FieldDesc::Text),
    F(COrvexWiraInstrumentField, Text5, FieldDesc::Text),
    F(COrvexWiraInstrumentField, Text2017, FieldDesc::Text),
    F(COrvexWiraInstrumentField, Text2018, FieldDesc::Text),
    F(COrvexWiraInstrumentField, Reserved3, FieldDesc::Text),
};
const FieldDesc kLoginFields[] = {
    F(COrvexWiraRspUserLoginField, TradingDay, FieldDesc::Text),
    F(COrvexWiraRspUserLoginField, LoginTime, FieldDesc::Text),
    F(COrvexWiraRspUserLoginField, BrokerID, FieldDesc::Text),
    F(COrvexWiraRspUserLoginField, UserID, FieldDesc::Text),
    F(COrvexWiraRspUserLoginField, SystemName, FieldDesc::Text),
    F(COrvexWiraRspUserLoginField, FrontID, FieldDesc::Int),
    F(COrvexWiraRspUserLoginField, LinkID, FieldDesc::Int),
    F(COrvexWiraRspUserLoginField, MaxOrderRef, FieldDesc::Text),
    F(COrvexWiraRspUserLoginField, SHFETime, FieldDesc::Text),
    F(COrvexWiraRspUserLoginField, DCETime, FieldDesc::Text),
    F(COrvexWiraRspUserLoginField, CZCETime, FieldDesc::Text),
    F(COrvexWiraRspUserLoginField, FFEXTime, FieldDesc::Text),
};
const FieldDesc kInfoFields[] = {
    F(COrvexWiraRspInfoField, ErrorID, FieldDesc::Int),
    F(COrvexWiraRspInfoField, ErrorMsg, FieldDesc::Text),
};
#undef F

template <size_t N>
FieldList List(const FieldDesc (&a)[N]) {
    return FieldList{a, N};
}

}  // namespace

FieldList DepthFields() { return List(kDepthFields); }
FieldList StatusFields() { return List(kStatusFields); }
FieldList InstrumentFields() { return List(kInstrumentFields); }
FieldList LoginFields() { return List(kLoginFields); }
FieldList InfoFields() { return List(kInfoFields); }

std::string GbkToUtf8(const char* text, size_t width) {
    const size_t n = strnlen(text, width);
    bool ascii = true;
    for (size_t i = 0; i < n && ascii; ++i) ascii = static_cast<unsigned char>(text[i]) < 0x80;
    if (ascii) return std::string(text, n);
    // One converter per thread, opened on first use.
    thread_local iconv_t cd = iconv_open("UTF-8", "GBK");
    std::string out;
    if (cd == reinterpret_cast<iconv_t>(-1)) {
        for (size_t i = 0; i < n; ++i) out += static_cast<unsigned char>(text[i]) < 0x80 ? text[i] : '?';
        return out;
    }
    iconv(cd, nullptr, nullptr, nullptr, nullptr);
    char buffer[1024];
    char* src = const_cast<char*>(text);
    size_t left = n;
    while (left) {
        char* dst = buffer;
        size_t room = sizeof(buffer);
        const size_t rc = iconv(cd, &src, &left, &dst, &room);
        out.append(buffer, static_cast<size_t>(dst - buffer));
        if (rc == static_cast<size_t>(-1) && errno != E2BIG) {
            // Not GBK (or cut in the middle of a character): one byte is
            // replaced and the rest goes on.
            out += "\xEF\xBF\xBD";
            ++src;
            --left;
            iconv(cd, nullptr, nullptr, nullptr, nullptr);
        }
    }
    return out;
}

}  // namespace journal
}  // namespace orvex
