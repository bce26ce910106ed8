// Instrument answers built from the model, and the file-service answers
// merged with it once their markets are ready. DC worker thread.
#include "dc/QxsfAnswer.h"

#include <cstdio>
#include <cstring>
#include <memory>

#include "dc/MdEngine.h"

// "合约查询找不到指定市场" in GBK.
const char kUnknownExchangeMsg[] =
    "\xba\xcf\xd4\xbc\xb2\xe9\xd1\xaf\xd5\xd2\xb2\xbb\xb5\xbd\xd6\xb8\xb6\xa8\xca\xd0\xb3\xa1";
static_assert(sizeof(kUnknownExchangeMsg) == 23, "22 bytes of GBK text and the NUL");

CQxsfRsp::CQxsfRsp() { std::memset(&info, 0, sizeof(info)); }

CQxsfRsp::CQxsfRsp(const _QryInstrumentInfo& query) : info(query) {}

bool InstrumentMarketsReady(const std::vector<CQxMarket*>& markets, size_t* total) {
    size_t n = 0;
    for (const CQxMarket* market : markets) {
        if (market->tradingDay != 0 && !market->NameTableComplete) return false;
        n += market->instruments.size();
    }
    if (total) *total = n;
    return true;
}

void AnswerInstruments(COrvexWiraMdSpi* spi, const std::vector<CQxMarket*>& markets, size_t total, int requestId,
                       const std::map<std::string, std::map<std::string, COrvexWiraInstrumentField>>* contracts) {
    COrvexWiraInstrumentField rec;
    COrvexWiraRspInfoField info;
    std::memset(&rec, 0, sizeof(rec));
    std::memset(&info, 0, sizeof(info));
    size_t count = 0;
    for (const CQxMarket* market : markets) {
        const std::map<std::string, COrvexWiraInstrumentField>* files = nullptr;
        if (contracts) {
            auto it = contracts->find(market->exchangeCode);
            if (it != contracts->end()) files = &it->second;
        }
        for (const auto& kv : market->instruments) {
            const CQxInstrument& inst = kv.second;
            ++count;
            if (!spi) continue;
            if (files) {
                auto it = files->find(inst.exchangeCode);
                if (it != files->end()) rec = it->second;
            }
            FillInstrumentRecord(&rec, *market, inst);
            // The callee gets copies: what it does to them stays out of the
            // next answer.
            COrvexWiraInstrumentField recCopy = rec;
            COrvexWiraRspInfoField infoCopy = info;
            spi->OnInstrumentAnswer(&recCopy, &infoCopy, requestId, count == total);
        }
    }
}

void AnswerInstrumentError(COrvexWiraMdSpi* spi, int requestId, int errorId, const char* message) {
    if (!spi) return;
    COrvexWiraRspInfoField info;
    std::memset(&info, 0, sizeof(info));
    info.ErrorID = errorId;
    std::snprintf(info.ErrorMsg, sizeof(info.ErrorMsg), "%s", message);
    spi->OnInstrumentAnswer(nullptr, &info, requestId, true);
}

void CMdEngine::AddFileAnswer(std::unique_ptr<CQxsfRsp> answer) {
    if (answer) m_fileAnswers.push_back(std::move(answer));
}

void CMdEngine::CheckQXSFQryInstrument() {
    for (size_t i = 0; i < m_fileAnswers.size();) {
        const _QryInstrumentInfo& query = m_fileAnswers[i]->info;
        const std::string_view exchangeId(query.query.ExchangeID, strnlen(query.query.ExchangeID, 9));
        std::vector<CQxMarket*> markets;
        if (!exchangeId.empty()) {
            CQxExchange* exchange = FindExchange(exchangeId);
            if (!exchange) {
                const int requestId = query.nRequestID;
                char message[81];
                std::snprintf(message, sizeof(message), "%s %.*s.", kUnknownExchangeMsg,
                              static_cast<int>(exchangeId.size()), exchangeId.data());
                m_fileAnswers.erase(m_fileAnswers.begin() + static_cast<std::ptrdiff_t>(i));
                AnswerInstrumentError(Spi(), requestId, 1, message);
                continue;
            }
            markets = exchange->markets;
        } else {
            markets.reserve(m_markets.size());
            for (auto& kv : m_markets) markets.push_back(&kv.second);
        }
        size_t total = 0;
        if (!InstrumentMarketsReady(markets, &total)) {
            ++i;
            continue;
        }
        // Taken out of the list before the callbacks run.
        std::unique_ptr<CQxsfRsp> rsp = std::move(m_fileAnswers[i]);
        m_fileAnswers.erase(m_fileAnswers.begin() + static_cast<std::ptrdiff_t>(i));
        AnswerInstruments(Spi(), markets, total, rsp->info.nRequestID, &rsp->contracts);
        return;
    }
}
