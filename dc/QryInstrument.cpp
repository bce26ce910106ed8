// Instrument queries: answered by the engine from the model once the markets
// concerned have their whole name tables, or handed to the file service
// when it is configured.
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "dc/MdEngine.h"

// Serves one query; false when its markets are not ready yet.
bool CMdEngine::ServeQuery(COrvexWiraMdSpi* spi, const _QryInstrumentInfo& query) {
    const std::string_view exchangeId(query.query.ExchangeID, strnlen(query.query.ExchangeID, 9));
    std::vector<CQxMarket*> markets;
    if (exchangeId.empty()) {
        markets.reserve(m_markets.size());
        for (auto& kv : m_markets) markets.push_back(&kv.second);
    } else {
        CQxExchange* exchange = FindExchange(exchangeId);
        if (!exchange) {
            AnswerInstrumentError(spi, query.nRequestID, 1, kUnknownExchangeMsg);
            return true;
        }
        markets = exchange->markets;
    }

    size_t total = 0;
    if (!InstrumentMarketsReady(markets, &total)) return false;

    // The file service is asked for the markets by exchange code: one entry
    // per market of the whole model, or just the queried exchange.
    std::vector<std::string> names;
    if (exchangeId.empty()) {
        names.reserve(markets.size());
        for (const CQxMarket* market : markets) names.emplace_back(market->exchangeCode);
    } else {
        names.emplace_back(exchangeId);
    }
    if (!m_host.HandOverQuery(query, std::move(names), spi))
        AnswerInstruments(spi, markets, total, query.nRequestID, nullptr);
    return true;
}

std::vector<_QryInstrumentInfo> CMdEngine::ServeQueries(const std::vector<_QryInstrumentInfo>& queries) {
    std::vector<_QryInstrumentInfo> waiting;
    // Without a callback object nobody could hear the answers.
    COrvexWiraMdSpi* spi = Spi();
    if (!spi) return waiting;
    for (const _QryInstrumentInfo& query : queries) {
        if (!ServeQuery(spi, query)) waiting.push_back(query);
    }
    return waiting;
}
