// The library as an application of the benchmarks uses it: the shared
// library and its public headers, a callback object that records pushed rows
// into a DeliveryRecorder while one is armed and notes the snapshot's end.
#ifndef ORVEX_BENCH_LIBRARY_CLIENT_H
#define ORVEX_BENCH_LIBRARY_CLIENT_H

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstring>
#include <string>

#include "BenchUtil.h"
#include "OrvexWiraMdApi.h"
#include "Receivers.h"

namespace orvex_bench {

class BenchSpi : public COrvexWiraMdSpi {
public:
    void OnFrontLinked() override {
        linkedAt = NowNs();
        tid = static_cast<int>(syscall(SYS_gettid));   // the library's worker
        ++linked;
    }
    void OnFrontLost(int reason) override {
        lostAt = NowNs();
        lostReason = reason;
        ++lost;
    }
    void OnLoginAnswer(COrvexWiraRspUserLoginField*, COrvexWiraRspInfoField* info, int, bool) override {
        loginCode = info ? info->ErrorID : -1;
        loginAnswerAt = NowNs();
    }
    void OnDepthMarketData(COrvexWiraDepthMarketDataField* d) override {
        if (recorder && recorder->Armed()) {
            recorder->Record(d->Turnover, d->Volume);
            return;
        }
        snapshotRows.fetch_add(1, std::memory_order_relaxed);
        lastSnapshotAt.store(NowNs(), std::memory_order_relaxed);
    }
    void OnStatusChange(COrvexWiraMarketStatusField* s) override {
        // '*' reports the login; any other character follows a completed
        // quotation.
        if (s->MarketStatus == '*') return;
        int64_t none = 0;
        completedAt.compare_exchange_strong(none, NowNs());
    }

    DeliveryRecorder* recorder = nullptr;
    std::atomic<int> linked{0}, lost{0}, lostReason{-1}, loginCode{-1}, tid{-1};
    std::atomic<int64_t> linkedAt{0}, lostAt{0}, loginAnswerAt{0}, completedAt{0}, lastSnapshotAt{0};
    std::atomic<uint64_t> snapshotRows{0};
};

class LibraryClient {
public:
    // With `other`, that callback object is registered instead of `spi`.
    LibraryClient(const std::string& front, bool deliverSnapshot, BenchSpi* other = nullptr) {
        m_api = COrvexWiraMdApi::CreateWiraMdApi("./", false, false, deliverSnapshot);
        m_api->RegisterSpi(other ? other : &spi);
        std::string address = front;
        m_api->RegisterFront(&address[0]);
    }
    ~LibraryClient() {
        if (m_api) m_api->Release();
    }
    void Init() { m_api->Init(); }
    int Login() {
        COrvexWiraReqUserLoginField req;
        std::memset(&req, 0, sizeof(req));
        std::strcpy(req.BrokerID, "bench");
        std::strcpy(req.UserID, "bench");
        std::strcpy(req.Password, "bench");
        return m_api->ReqUserLogin(&req, 1);
    }

    BenchSpi spi;

private:
    COrvexWiraMdApi* m_api = nullptr;
};

template <class F>
inline bool WaitUntil(F pred, int timeoutMs) {
    const int64_t end = NowNs() + static_cast<int64_t>(timeoutMs) * 1000000;
    while (!pred()) {
        if (NowNs() > end) return false;
        SleepNs(100000);
    }
    return true;
}

}  // namespace orvex_bench

#endif
