// Instrument queries: queued by the caller's thread, answered by the DC
// worker from the model once the markets concerned have their whole name
// tables, or handed to a file-service worker when "ftp" fronts exist.
//
// The worker swaps the queue out under its lock and serves the batch without
// it; queries that are not ready go back to the front of the queue, ahead of
// anything queued meanwhile (a callback may query again).
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "dc/DCThread.h"
#include "sf/QXSFThread.h"

namespace {

// Starts a file-service worker that answers the query from contract files
// of the given markets (exchange codes).
void HandOver(CDCThread& api, COrvexWiraMdSpi* spi, _QryInstrumentInfo& query, std::vector<std::string> markets) {
    CQXSFThread* worker = new CQXSFThread(api.m_szFlowPath, &query, std::move(markets));
    worker->RegisterSpi(spi);
    worker->Init();
    api.m_qxsfWorkers.push_back(worker);
}

// Serves one query; false when its markets are not ready yet.
bool Serve(CDCThread& api, COrvexWiraMdSpi* spi, _QryInstrumentInfo& query) {
    const std::string_view exchangeId(query.query.ExchangeID, strnlen(query.query.ExchangeID, 9));
    const bool fileService = CQXSFThread::FrontCount() > 0;
    std::vector<CQxMarket*> markets;
    if (exchangeId.empty()) {
        markets.reserve(api.m_markets.size());
        for (auto& kv : api.m_markets) markets.push_back(&kv.second);
    } else {
        CQxExchange* exchange = api.FindExchange(exchangeId);
        if (!exchange) {
            AnswerInstrumentError(spi, query.nRequestID, 1, kUnknownExchangeMsg);
            return true;
        }
        markets = exchange->markets;
    }

    size_t total = 0;
    if (!InstrumentMarketsReady(markets, &total)) return false;

    if (!fileService) {
        AnswerInstruments(spi, markets, total, query.nRequestID, nullptr);
        return true;
    }
    // The file service is asked for the markets by exchange code: one entry
    // per market of the whole model, or just the queried exchange.
    std::vector<std::string> names;
    if (exchangeId.empty()) {
        names.reserve(markets.size());
        for (const CQxMarket* market : markets) names.emplace_back(market->exchangeCode);
    } else {
        names.emplace_back(exchangeId);
    }
    HandOver(api, spi, query, std::move(names));
    return true;
}

}  // namespace

int CDCThread::ReqQryInstrument(COrvexWiraQryInstrumentField* query, int requestId) {
    if (!query) return -1;
    _QryInstrumentInfo info;
    std::memset(&info, 0, sizeof(info));
    info.nRequestID = requestId;
    std::memcpy(&info.query, query, sizeof(info.query));
    {
        std::lock_guard<std::mutex> lock(m_qryLock);
        m_qryQueue.push_back(info);
    }
    Wake();
    return 0;
}

void CDCThread::CheckQryInstrument() {
    std::vector<_QryInstrumentInfo> batch;
    {
        std::lock_guard<std::mutex> lock(m_qryLock);
        if (m_qryQueue.empty()) return;
        batch.swap(m_qryQueue);
    }
    // Without a callback object nobody could hear the answers.
    COrvexWiraMdSpi* spi = Spi();
    if (!spi) return;

    std::vector<_QryInstrumentInfo> waiting;
    for (_QryInstrumentInfo& query : batch) {
        if (!Serve(*this, spi, query)) waiting.push_back(query);
    }
    if (waiting.empty()) return;
    std::lock_guard<std::mutex> lock(m_qryLock);
    m_qryQueue.insert(m_qryQueue.begin(), waiting.begin(), waiting.end());
}
