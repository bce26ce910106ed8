// Records exchanged between a trading application and libOrvexMdUserApi.
//
// Every record is plain data with natural alignment and no packing pragmas:
// the byte layout is part of the library's binary interface, because the
// application is compiled separately from the library. Character arrays are
// NUL-terminated within their width (a field of width n holds n-1 characters).
// Records handed to a callback are copies that live only during the call.
#ifndef ORVEX_WIRA_MD_STRUCT_H
#define ORVEX_WIRA_MD_STRUCT_H

// Login request (188 bytes). The library copies the whole record when the
// login is sent and reads TradingDay never, BrokerID/UserID/Password only.
struct COrvexWiraReqUserLoginField {
    char TradingDay[9];
    char BrokerID[11];
    char UserID[16];
    char Password[41];       // sent to the quote server as it stands
    char Reserved[111];      // further caller fields, copied but never read
};

// Login answer (148 bytes). Zeroed by the library before it is filled.
struct COrvexWiraRspUserLoginField {
    char TradingDay[9];
    char LoginTime[9];       // "HH:MM:DD": hour, minute, then day of month
    char BrokerID[11];
    char UserID[16];
    char SystemName[41];     // "QXDC"
    int FrontID;             // index of the front in use
    int LinkID;              // always 0
    char MaxOrderRef[13];    // always empty
    char SHFETime[9];
    char DCETime[9];
    char CZCETime[9];
    char FFEXTime[9];
};

// Logout request; accepted by pointer and never read.
struct COrvexWiraUserLogoutField {
    char BrokerID[11];
    char UserID[16];
};

// Front user information; accepted by pointer and never read.
struct COrvexWiraFensUserInfoField {
    char BrokerID[11];
    char UserID[16];
    char LoginMode;
};

// Result of a request (88 bytes). ErrorID 0 means success; ErrorMsg may hold
// GBK-encoded text.
struct COrvexWiraRspInfoField {
    int ErrorID;
    char ErrorMsg[81];
};

// Instrument query (102 bytes). Only ExchangeID narrows the answer.
struct COrvexWiraQryInstrumentField {
    char InstrumentID[31];
    char ExchangeID[9];
    char ExchangeInstID[31];
    char ProductID[31];
};

// Depth market data (408 bytes). An empty price is DBL_MAX; a price the
// server marked as having no value is 0.0. In a delta record (DeltaQuot=1)
// DBL_MAX marks an unchanged double and 0x7FFFFFFF an unchanged volume.
struct COrvexWiraDepthMarketDataField {
    char TradingDay[9];
    char InstrumentID[31];
    char ExchangeID[9];
    char ExchangeInstID[31];
    double LastPrice;
    double PreSettlementPrice;
    double PreClosePrice;
    double PreOpenInterest;
    double OpenPrice;
    double HighestPrice;
    double LowestPrice;
    double Volume;           // cumulative volume, as the server sends it
    double Turnover;
    double OpenInterest;
    double ClosePrice;
    double SettlementPrice;
    double UpperLimitPrice;
    double LowerLimitPrice;
    double PreDelta;         // never filled: DBL_MAX
    double CurrDelta;        // never filled: DBL_MAX
    char UpdateTime[9];      // "HH:MM:SS"
    int UpdateMillisec;
    double BidPrice1;
    int BidVolume1;
    double AskPrice1;
    int AskVolume1;
    double BidPrice2;
    int BidVolume2;
    double AskPrice2;
    int AskVolume2;
    double BidPrice3;
    int BidVolume3;
    double AskPrice3;
    int AskVolume3;
    double BidPrice4;
    int BidVolume4;
    double AskPrice4;
    int AskVolume4;
    double BidPrice5;
    int BidVolume5;
    double AskPrice5;
    int AskVolume5;
    double AveragePrice;
    char ActionDay[9];       // calendar day of the quote, YYYYMMDD
};

// Instrument (232 bytes). Reserved ranges are never written by the library
// and stay zero.
struct COrvexWiraInstrumentField {
    char InstrumentID[31];
    char ExchangeID[9];
    char InstrumentName[21];
    char ExchangeInstID[31];
    char Reserved1[56];
    int VolumeMultiple;
    double Number13;         // contract files only
    char Reserved2[9];
    char Text4[9];           // contract files only: decimal text
    char Text5[9];
    char Text2017[9];
    char Text2018[9];
    char Reserved3[27];
};

// Market status report passed to OnStatusChange (37 bytes).
// MarketStatus: '0', '2', '4', '6', or '*' for the report that completes a
// login.
struct COrvexWiraMarketStatusField {
    char ExchangeID[9];
    char TradingDay[9];      // "%d" of the market's trading day
    char SecondDay[9];       // "%d" of the market's second day word
    char UpdateTime[9];      // "HH:MM:SS"
    char MarketStatus;
};

#endif
