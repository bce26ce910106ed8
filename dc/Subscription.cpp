// Subscriptions: the engine applies the caller's request strings (queued by
// the API object) to the exchanges' subscribed sets and replays the current
// quote of what was newly subscribed.
//
// A request is "CODE.EXCHANGE" (split at the first '.'), an exchange code
// the model knows (the whole exchange), or any other text: one instrument on
// whichever of SHFE, DCE, CZCE and CFFEX exist. A leading '.' does not split.
//
// Subscriptions live as long as the engine: a login that rebuilds the model
// parks each exchange's subscriptions by exchange code, and they return to
// the exchange of that code when it is created again (an exchange the new
// login does not list keeps them parked, and requests naming it still
// change them).
//
// The API object swaps its queue out under its lock and hands the batch
// over without it, so a callback may subscribe again; that request is served
// on the next pass.
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "dc/MdEngine.h"

namespace {

const char* const kMainExchanges[4] = {"SHFE", "DCE", "CZCE", "CFFEX"};

struct Request {
    std::string_view instrument;   // empty: the whole exchange
    std::string_view exchange;     // empty: the four main exchanges
};

// Splits a request string; an exchange code on its own names the exchange.
Request Split(CMdEngine& engine, std::string_view text) {
    const size_t dot = text.find('.');
    if (dot != std::string_view::npos && dot > 0) return {text.substr(0, dot), text.substr(dot + 1)};
    if (engine.SubscriptionsOf(text)) return {std::string_view(), text};
    return {text, std::string_view()};
}

}  // namespace

void CMdEngine::CheckSubscribeInfo(const std::vector<std::string>& batch) {
    // Replays the quote of one instrument: the first of the exchange's
    // markets that lists it decides, and a never-dated quote is not sent.
    auto replayOne = [this](CQxExchange& exchange, std::string_view id) {
        if (!m_settings.deliverSnapshot || !Spi()) return;
        for (CQxMarket* market : exchange.markets) {
            CQxInstrument* inst = market->FindInstrumentByID(id);
            if (!inst) continue;
            if (inst->quoteDate != 0) {
                COrvexWiraDepthMarketDataField copy = inst->depth;
                if (COrvexWiraMdSpi* spi = Spi()) spi->OnDepthMarketData(&copy);
            }
            return;
        }
    };

    for (const std::string& text : batch) {
        if (text.empty()) continue;
        const Request req = Split(*this, text);
        if (req.exchange.empty()) {
            for (const char* code : kMainExchanges) {
                CQxExchange* exchange = SubscriptionsOf(code);
                if (!exchange) continue;
                exchange->subscribed.emplace(req.instrument);
                replayOne(*exchange, req.instrument);
            }
            continue;
        }
        CQxExchange* exchange = SubscriptionsOf(req.exchange);
        if (!exchange) continue;
        if (!req.instrument.empty()) {
            exchange->subscribed.emplace(req.instrument);
            replayOne(*exchange, req.instrument);
            continue;
        }
        exchange->WholeExchange = true;
        if (!m_settings.deliverSnapshot || !Spi()) continue;
        for (CQxMarket* market : exchange->markets) {
            for (auto& kv : market->instruments) {
                if (kv.second.quoteDate == 0) continue;
                COrvexWiraDepthMarketDataField copy = kv.second.depth;
                if (COrvexWiraMdSpi* spi = Spi()) spi->OnDepthMarketData(&copy);
            }
        }
    }
}

void CMdEngine::CheckUnSubscribeInfo(const std::vector<std::string>& batch) {
    for (const std::string& text : batch) {
        if (text.empty()) continue;
        const Request req = Split(*this, text);
        if (req.exchange.empty()) {
            for (const char* code : kMainExchanges) {
                if (CQxExchange* exchange = SubscriptionsOf(code)) {
                    auto it = exchange->subscribed.find(req.instrument);
                    if (it != exchange->subscribed.end()) exchange->subscribed.erase(it);
                }
            }
            continue;
        }
        CQxExchange* exchange = SubscriptionsOf(req.exchange);
        if (!exchange) continue;
        if (req.instrument.empty()) {
            // Dropping the exchange drops its single-instrument
            // subscriptions too.
            exchange->WholeExchange = false;
            exchange->subscribed.clear();
        } else {
            auto it = exchange->subscribed.find(req.instrument);
            if (it != exchange->subscribed.end()) exchange->subscribed.erase(it);
        }
    }
}

CQxExchange* CMdEngine::SubscriptionsOf(std::string_view exchangeId) {
    if (CQxExchange* exchange = FindExchange(exchangeId)) return exchange;
    auto it = m_parkedSubscriptions.find(exchangeId);
    return it == m_parkedSubscriptions.end() ? nullptr : &it->second;
}

void CMdEngine::ClearExchanges() {
    for (auto& kv : m_exchanges) {
        CQxExchange& exchange = kv.second;
        if (exchange.subscribed.empty() && !exchange.WholeExchange) continue;
        CQxExchange& parked = m_parkedSubscriptions[kv.first];
        parked.subscribed = std::move(exchange.subscribed);
        parked.WholeExchange = exchange.WholeExchange;
    }
    m_exchanges.clear();
}

CQxExchange& CMdEngine::ExchangeFor(const std::string& exchangeId) {
    auto it = m_exchanges.find(exchangeId);
    if (it != m_exchanges.end()) return it->second;
    CQxExchange& exchange = m_exchanges[exchangeId];
    auto parked = m_parkedSubscriptions.find(exchangeId);
    if (parked != m_parkedSubscriptions.end()) {
        exchange.subscribed = std::move(parked->second.subscribed);
        exchange.WholeExchange = parked->second.WholeExchange;
        m_parkedSubscriptions.erase(parked);
    }
    return exchange;
}
