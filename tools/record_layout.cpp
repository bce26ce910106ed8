// Prints the size and the field offsets of every exported record, as an
// application compiled against the public headers sees them.
#include <cstddef>
#include <cstdio>

#include "OrvexWiraMdApi.h"

#define FIELD(T, f) std::printf("  %-20s %4zu  %3zu\n", #f, offsetof(T, f), sizeof(((T*)nullptr)->f))

int main() {
    std::printf("COrvexWiraDepthMarketDataField: %zu bytes\n", sizeof(COrvexWiraDepthMarketDataField));
    FIELD(COrvexWiraDepthMarketDataField, TradingDay);
    FIELD(COrvexWiraDepthMarketDataField, InstrumentID);
    FIELD(COrvexWiraDepthMarketDataField, ExchangeID);
    FIELD(COrvexWiraDepthMarketDataField, ExchangeInstID);
    FIELD(COrvexWiraDepthMarketDataField, LastPrice);
    FIELD(COrvexWiraDepthMarketDataField, Volume);
    FIELD(COrvexWiraDepthMarketDataField, Turnover);
    FIELD(COrvexWiraDepthMarketDataField, OpenInterest);
    FIELD(COrvexWiraDepthMarketDataField, CurrDelta);
    FIELD(COrvexWiraDepthMarketDataField, UpdateTime);
    FIELD(COrvexWiraDepthMarketDataField, UpdateMillisec);
    FIELD(COrvexWiraDepthMarketDataField, BidPrice1);
    FIELD(COrvexWiraDepthMarketDataField, BidVolume1);
    FIELD(COrvexWiraDepthMarketDataField, AskPrice1);
    FIELD(COrvexWiraDepthMarketDataField, AskVolume5);
    FIELD(COrvexWiraDepthMarketDataField, AveragePrice);
    FIELD(COrvexWiraDepthMarketDataField, ActionDay);
    std::printf("COrvexWiraInstrumentField: %zu bytes\n", sizeof(COrvexWiraInstrumentField));
    FIELD(COrvexWiraInstrumentField, InstrumentID);
    FIELD(COrvexWiraInstrumentField, ExchangeID);
    FIELD(COrvexWiraInstrumentField, InstrumentName);
    FIELD(COrvexWiraInstrumentField, ExchangeInstID);
    FIELD(COrvexWiraInstrumentField, VolumeMultiple);
    FIELD(COrvexWiraInstrumentField, Number13);
    FIELD(COrvexWiraInstrumentField, Text4);
    FIELD(COrvexWiraInstrumentField, Text2018);
    std::printf("COrvexWiraRspUserLoginField: %zu bytes\n", sizeof(COrvexWiraRspUserLoginField));
    FIELD(COrvexWiraRspUserLoginField, SystemName);
    FIELD(COrvexWiraRspUserLoginField, FrontID);
    FIELD(COrvexWiraRspUserLoginField, FFEXTime);
    std::printf("COrvexWiraRspInfoField: %zu bytes\n", sizeof(COrvexWiraRspInfoField));
    std::printf("COrvexWiraQryInstrumentField: %zu bytes\n", sizeof(COrvexWiraQryInstrumentField));
    std::printf("COrvexWiraReqUserLoginField: %zu bytes\n", sizeof(COrvexWiraReqUserLoginField));
    std::printf("COrvexWiraMarketStatusField: %zu bytes\n", sizeof(COrvexWiraMarketStatusField));
    return 0;
}
