// Instrument answers built from the model, and the file-service queries
// waiting for them.
//
// A CQxsfRsp is a file-service query that has finished downloading: the
// query as it was queued and the contract records loaded from the market
// files, keyed by requested market (exchange code) and then by instrument
// code. The API object owns these, in arrival order, and answers each on the
// DC worker once every market concerned has its name table.
#ifndef ORVEX_DC_QXSF_ANSWER_H
#define ORVEX_DC_QXSF_ANSWER_H

#include <cstddef>
#include <map>
#include <string>
#include <vector>

#include "api/OrvexWiraMdApi.h"
#include "sf/QryInstrumentInfo.h"

class CQxMarket;

class CQxsfRsp {
public:
    CQxsfRsp();
    explicit CQxsfRsp(const _QryInstrumentInfo& query);

    _QryInstrumentInfo info;
    // Requested market -> instrument code -> contract record.
    std::map<std::string, std::map<std::string, COrvexWiraInstrumentField>> contracts;
};

// Error text of an instrument query for an exchange the model does not know
// (GBK, 22 bytes and the NUL).
extern const char kUnknownExchangeMsg[];

// True when every market has its whole name table; a market that has not
// announced a trading day does not hold a query back. Adds up the markets'
// instrument counts into *total.
bool InstrumentMarketsReady(const std::vector<CQxMarket*>& markets, size_t* total);

// Answers one query with every instrument of the markets, in the given
// market order and each market's code order, the last one marked is-last.
// One record is cleared for the whole run; when contracts are given, an
// instrument's contract record (found under the market's exchange code and
// the instrument's exchange code) is copied over it before the model's
// codes, name and multiplier are written, so an instrument without one keeps
// the contract fields of the one before it. spi may be null: nothing is
// called then.
void AnswerInstruments(COrvexWiraMdSpi* spi, const std::vector<CQxMarket*>& markets, size_t total, int requestId,
                       const std::map<std::string, std::map<std::string, COrvexWiraInstrumentField>>* contracts);

// Answers a query with an error record and no instrument, is-last set.
void AnswerInstrumentError(COrvexWiraMdSpi* spi, int requestId, int errorId, const char* message);

#endif
