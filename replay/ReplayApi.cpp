#include "replay/ReplayApi.h"

#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>

#include "OrvexWiraMdReplay.h"
#include "journal/JournalFormat.h"

namespace orvex {
namespace replay {

namespace {

using journal::Entry;

// "合约查询找不到指定市场" in GBK: the answer to a query for an exchange
// the journal has no instruments of, as live.
const char kUnknownExchangeMsg[] =
    "\xba\xcf\xd4\xbc\xb2\xe9\xd1\xaf\xd5\xd2\xb2\xbb\xb5\xbd\xd6\xb8\xb6\xa8\xca\xd0\xb3\xa1";

int64_t SteadyNanos() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

std::string Text(const char* p, size_t width) { return std::string(p, strnlen(p, width)); }

bool IsMainExchange(const std::string& s) { return s == "SHFE" || s == "DCE" || s == "CZCE" || s == "CFFEX"; }

}  // namespace

bool ReplayApi::Filter::Wants(const COrvexWiraDepthMarketDataField& d) const {
    if (!on) return true;
    const std::string exchange = Text(d.ExchangeID, sizeof(d.ExchangeID));
    if (exchanges.count(exchange)) return true;
    const std::string code = Text(d.InstrumentID, sizeof(d.InstrumentID));
    if (pairs.count(code + "." + exchange)) return true;
    return IsMainExchange(exchange) && codes.count(code);
}

ReplayApi* ReplayApi::Create(const char* journalPath, double speed, std::string* error) {
    if (!journalPath || !*journalPath) {
        *error = "no journal given";
        return nullptr;
    }
    if (!(speed >= 0)) {
        *error = "the speed must be 0 (as fast as possible) or more";
        return nullptr;
    }
    const std::vector<std::string> files = journal::JournalFiles(journalPath, error);
    if (files.empty()) return nullptr;
    std::unique_ptr<ReplayApi> api(new ReplayApi(speed));
    // The recorded instrument answers, the last of each instrument kept in
    // the order first seen, answer the application's queries.
    std::map<std::string, size_t> seen;
    for (const std::string& file : files) {
        auto reader = std::make_unique<journal::JournalReader>();
        if (!reader->Open(file, error)) return nullptr;
        Entry e;
        while (reader->Next(&e)) {
            if (e.kind != journal::kInstrument || e.size != journal::kInstrumentPayload ||
                !(e.payload[4] & journal::kHasRecord))
                continue;
            COrvexWiraInstrumentField rec;
            std::memcpy(&rec, e.payload + journal::kAnswerHead, sizeof(rec));
            const std::string key =
                Text(rec.InstrumentID, sizeof(rec.InstrumentID)) + "." + Text(rec.ExchangeID, sizeof(rec.ExchangeID));
            auto it = seen.find(key);
            if (it == seen.end()) {
                seen.emplace(key, api->m_instruments.size());
                api->m_instruments.push_back(rec);
            } else {
                api->m_instruments[it->second] = rec;
            }
        }
        reader->Rewind();
        api->m_readers.push_back(std::move(reader));
    }
    return api.release();
}

ReplayApi::~ReplayApi() = default;

COrvexWiraMdSpi* ReplayApi::Spi() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_spi;
}

void ReplayApi::Release() {
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_stop = true;
        if (m_started && std::this_thread::get_id() == m_threadId) {
            // Called from a callback: the replay thread deletes the object
            // once the callback has returned.
            m_deleteOnExit = true;
            m_wake.notify_all();
            return;
        }
    }
    m_wake.notify_all();
    if (m_thread.joinable()) m_thread.join();
    delete this;
}

void ReplayApi::Init() {
    std::lock_guard<std::mutex> lock(m_lock);
    if (m_started || m_stop) return;
    m_started = true;
    m_thread = std::thread([this] { Run(); });
    m_threadId = m_thread.get_id();
}

int ReplayApi::Join() {
    std::unique_lock<std::mutex> lock(m_lock);
    if (!m_started || std::this_thread::get_id() == m_threadId) return 0;
    m_wake.wait(lock, [this] { return m_ended || m_stop; });
    return 0;
}

const char* ReplayApi::GetTradingDay() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_tradingDay;
}

void ReplayApi::RegisterFront(char*) {}
void ReplayApi::RegisterNameServer(char*) {}
void ReplayApi::RegisterFensUserInfo(COrvexWiraFensUserInfoField*) {}

void ReplayApi::RegisterSpi(COrvexWiraMdSpi* pSpi) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_spi = pSpi;
}

void ReplayApi::Change(char* ids[], int count, bool subscribe) {
    std::lock_guard<std::mutex> lock(m_lock);
    if (subscribe) m_filter.on = true;
    for (int i = 0; ids && i < count; ++i) {
        if (!ids[i] || !ids[i][0]) continue;
        const std::string text = ids[i];
        const size_t dot = text.find('.');
        std::set<std::string>* set;
        std::string key = text;
        if (dot != std::string::npos && dot > 0) set = &m_filter.pairs;
        else if (IsMainExchange(text)) set = &m_filter.exchanges;
        else set = &m_filter.codes;
        if (subscribe) set->insert(key);
        else set->erase(key);
    }
    ++m_filterVersion;
    m_pendingWork.store(true, std::memory_order_release);
}

int ReplayApi::SubscribeMarketData(char* ppInstrumentID[], int nCount) {
    Change(ppInstrumentID, nCount, true);
    return 0;
}

int ReplayApi::UnSubscribeMarketData(char* ppInstrumentID[], int nCount) {
    Change(ppInstrumentID, nCount, false);
    return 0;
}

int ReplayApi::ReqUserLogin(COrvexWiraReqUserLoginField* pReqUserLoginField, int nRequestID) {
    if (!pReqUserLoginField) return -1;
    std::lock_guard<std::mutex> lock(m_lock);
    m_loginAsked = true;
    m_loginRequestId = nRequestID;
    return 0;
}

int ReplayApi::ReqUserLogout(COrvexWiraUserLogoutField*, int) { return 0; }

int ReplayApi::ReqQryInstrument(COrvexWiraQryInstrumentField* pQryInstrument, int nRequestID) {
    if (!pQryInstrument) return -1;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_queries.push_back(Query{Text(pQryInstrument->ExchangeID, sizeof(pQryInstrument->ExchangeID)), nRequestID});
        m_pendingWork.store(true, std::memory_order_release);
    }
    m_wake.notify_all();
    return 0;
}

bool ReplayApi::WaitUntil(int64_t due) {
    std::unique_lock<std::mutex> lock(m_lock);
    for (;;) {
        if (m_stop) return false;
        const int64_t now = SteadyNanos();
        if (now >= due) return true;
        // Queries are answered while waiting for the next recorded callback.
        if (!m_queries.empty()) {
            lock.unlock();
            ServeQueries();
            lock.lock();
            continue;
        }
        m_wake.wait_for(lock, std::chrono::nanoseconds(due - now));
    }
}

void ReplayApi::ServeQueries() {
    for (;;) {
        Query q;
        COrvexWiraMdSpi* spi;
        {
            std::lock_guard<std::mutex> lock(m_lock);
            m_pendingWork.store(false, std::memory_order_relaxed);
            if (m_filterVersion != m_threadFilterVersion) {
                m_threadFilter = m_filter;
                m_threadFilterVersion = m_filterVersion;
            }
            if (m_queries.empty() || m_stop) return;
            q = m_queries.front();
            m_queries.pop_front();
            spi = m_spi;
        }
        if (!spi) continue;
        std::vector<const COrvexWiraInstrumentField*> answer;
        for (const COrvexWiraInstrumentField& rec : m_instruments)
            if (q.exchange.empty() || q.exchange == Text(rec.ExchangeID, sizeof(rec.ExchangeID))) answer.push_back(&rec);
        COrvexWiraRspInfoField info;
        std::memset(&info, 0, sizeof(info));
        if (answer.empty()) {
            info.ErrorID = 1;
            std::snprintf(info.ErrorMsg, sizeof(info.ErrorMsg), "%s", kUnknownExchangeMsg);
            spi->OnInstrumentAnswer(nullptr, &info, q.requestId, true);
            continue;
        }
        for (size_t i = 0; i < answer.size(); ++i) {
            // The callee gets copies, as live.
            COrvexWiraInstrumentField rec = *answer[i];
            COrvexWiraRspInfoField infoCopy = info;
            spi->OnInstrumentAnswer(&rec, &infoCopy, q.requestId, i + 1 == answer.size());
        }
    }
}

void ReplayApi::Deliver(const Entry& e, COrvexWiraMdSpi* spi) {
    switch (e.kind) {
        case journal::kDepth: {
            if (e.size != sizeof(COrvexWiraDepthMarketDataField)) return;
            COrvexWiraDepthMarketDataField d;
            std::memcpy(&d, e.payload, sizeof(d));
            if (m_threadFilter.on && !m_threadFilter.Wants(d)) return;
            spi->OnDepthMarketData(&d);
            return;
        }
        case journal::kStatus: {
            if (e.size != sizeof(COrvexWiraMarketStatusField)) return;
            COrvexWiraMarketStatusField s;
            std::memcpy(&s, e.payload, sizeof(s));
            spi->OnStatusChange(&s);
            return;
        }
        case journal::kTemplate: {
            // A copy the callee may write to, as live.
            std::vector<unsigned char> data(e.payload, e.payload + e.size);
            spi->OnTemplateData(e.aux, data.data());
            return;
        }
        case journal::kLinked: {
            {
                std::lock_guard<std::mutex> lock(m_lock);
                m_loginAsked = false;
            }
            spi->OnFrontLinked();
            return;
        }
        case journal::kLost: {
            int32_t reason = 0;
            if (e.size >= 4) std::memcpy(&reason, e.payload, 4);
            spi->OnFrontLost(reason);
            return;
        }
        case journal::kLogin: {
            if (e.size != journal::kLoginPayload) return;
            int requestId;
            {
                std::lock_guard<std::mutex> lock(m_lock);
                if (!m_loginAsked) return;
                requestId = m_loginRequestId;
            }
            const uint8_t flags = e.payload[4];
            COrvexWiraRspUserLoginField rsp;
            COrvexWiraRspInfoField info;
            std::memcpy(&rsp, e.payload + journal::kAnswerHead, sizeof(rsp));
            std::memcpy(&info, e.payload + journal::kAnswerHead + sizeof(rsp), sizeof(info));
            if ((flags & journal::kHasRecord) && (!(flags & journal::kHasInfo) || info.ErrorID == 0)) {
                std::lock_guard<std::mutex> lock(m_lock);
                std::memcpy(m_tradingDay, rsp.TradingDay, sizeof(m_tradingDay));
                m_tradingDay[8] = '\0';
            }
            spi->OnLoginAnswer((flags & journal::kHasRecord) ? &rsp : nullptr,
                               (flags & journal::kHasInfo) ? &info : nullptr, requestId, (flags & journal::kIsLast) != 0);
            return;
        }
        default: return;   // instrument answers come on request; unknown kinds are skipped
    }
}

void ReplayApi::Run() {
    for (const auto& reader : m_readers) {
        Entry e;
        int64_t recordStart = 0, replayStart = 0;
        bool first = true;
        while (reader->Next(&e)) {
            if (m_speed > 0) {
                if (first) {
                    recordStart = e.time;
                    replayStart = SteadyNanos();
                    first = false;
                }
                const int64_t due = replayStart + static_cast<int64_t>(static_cast<double>(e.time - recordStart) / m_speed);
                if (!WaitUntil(due)) break;
            }
            if (m_pendingWork.load(std::memory_order_acquire)) ServeQueries();
            COrvexWiraMdSpi* spi;
            {
                std::lock_guard<std::mutex> lock(m_lock);
                if (m_stop) break;
                spi = m_spi;
            }
            if (spi) Deliver(e, spi);
        }
        std::lock_guard<std::mutex> lock(m_lock);
        if (m_stop) break;
    }
    // The end of the journal: Join returns; queries are still answered
    // until Release.
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_ended = true;
    }
    m_wake.notify_all();
    for (;;) {
        ServeQueries();
        std::unique_lock<std::mutex> lock(m_lock);
        m_wake.wait(lock, [this] { return m_stop || !m_queries.empty(); });
        if (m_stop) break;
    }
    bool self = false;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        self = m_deleteOnExit;
    }
    if (self) {
        m_thread.detach();
        delete this;
    }
}

}  // namespace replay
}  // namespace orvex

extern "C" COrvexWiraMdApi* CreateWiraReplayApi(const char* journal, double speed) {
    std::string error;
    COrvexWiraMdApi* api = orvex::replay::ReplayApi::Create(journal, speed, &error);
    if (!api) std::fprintf(stderr, "CreateWiraReplayApi: %s\n", error.c_str());
    return api;
}
