// The replay API object (see OrvexWiraMdReplay.h for what it does).
//
// It owns the journal readers, the recorded instrument answers and the
// replay thread. The application's calls (subscriptions, queries, login)
// take a short lock and return; the replay thread reads them between two
// callbacks and never calls the application while holding that lock.
#ifndef ORVEX_REPLAY_API_H
#define ORVEX_REPLAY_API_H

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "OrvexWiraMdApi.h"
#include "journal/JournalReader.h"

namespace orvex {
namespace replay {

class ReplayApi final : public COrvexWiraMdApi {
public:
    ~ReplayApi();
    // Opens every file of the journal; null with a message when one cannot
    // be read.
    static ReplayApi* Create(const char* journal, double speed, std::string* error);

    void Release() override;
    void Init() override;
    int Join() override;
    const char* GetTradingDay() override;
    void RegisterFront(char* pszFrontAddress) override;
    void RegisterNameServer(char* pszNsAddress) override;
    void RegisterFensUserInfo(COrvexWiraFensUserInfoField* pFensUserInfo) override;
    void RegisterSpi(COrvexWiraMdSpi* pSpi) override;
    int SubscribeMarketData(char* ppInstrumentID[], int nCount) override;
    int UnSubscribeMarketData(char* ppInstrumentID[], int nCount) override;
    int ReqUserLogin(COrvexWiraReqUserLoginField* pReqUserLoginField, int nRequestID) override;
    int ReqUserLogout(COrvexWiraUserLogoutField* pUserLogout, int nRequestID) override;
    int ReqQryInstrument(COrvexWiraQryInstrumentField* pQryInstrument, int nRequestID) override;

private:
    explicit ReplayApi(double speed) : m_speed(speed) {}

    struct Filter {
        bool on = false;                    // a subscription was made
        std::set<std::string> pairs;        // "CODE.EXCHANGE"
        std::set<std::string> exchanges;    // whole exchanges
        std::set<std::string> codes;        // a code on any exchange
        bool Wants(const COrvexWiraDepthMarketDataField& d) const;
    };
    struct Query {
        std::string exchange;
        int requestId = 0;
    };

    void Run();
    // Waits until the steady time `due` (ns); false when released meanwhile.
    bool WaitUntil(int64_t due);
    void Deliver(const journal::Entry& e, COrvexWiraMdSpi* spi);
    void ServeQueries();
    void Change(char* ids[], int count, bool subscribe);
    COrvexWiraMdSpi* Spi();

    const double m_speed;
    std::vector<std::unique_ptr<journal::JournalReader>> m_readers;
    std::vector<COrvexWiraInstrumentField> m_instruments;   // recorded answers, in order

    std::mutex m_lock;                 // everything below
    std::condition_variable m_wake;
    COrvexWiraMdSpi* m_spi = nullptr;
    Filter m_filter;
    uint64_t m_filterVersion = 0;
    std::deque<Query> m_queries;
    bool m_loginAsked = false;
    int m_loginRequestId = 0;
    bool m_stop = false;
    bool m_ended = false;
    bool m_started = false;
    bool m_deleteOnExit = false;
    char m_tradingDay[9] = {0};
    std::atomic<bool> m_pendingWork{false};   // queries or filter changes waiting
    std::thread m_thread;
    std::thread::id m_threadId;

    // Replay thread only.
    Filter m_threadFilter;
    uint64_t m_threadFilterVersion = 0;
};

}  // namespace replay
}  // namespace orvex

#endif
