// A small application built outside the source tree against the installed
// headers and library: it starts the API with a front where nothing listens
// and expects the library to report that no front was reachable.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "OrvexWiraMdApi.h"

namespace {

class Spi : public COrvexWiraMdSpi {
public:
    void OnFrontLost(int reason) override {
        std::lock_guard<std::mutex> lock(m_lock);
        if (m_reason < 0) m_reason = reason;
        m_changed.notify_all();
    }
    int WaitForLost(int seconds) {
        std::unique_lock<std::mutex> lock(m_lock);
        m_changed.wait_for(lock, std::chrono::seconds(seconds), [this] { return m_reason >= 0; });
        return m_reason;
    }

private:
    std::mutex m_lock;
    std::condition_variable m_changed;
    int m_reason = -1;
};

}  // namespace

int main(int argc, char** argv) {
    const char* how = argc > 1 ? argv[1] : "?";
    COrvexWiraMdApi* api = CreateWiraMdApi("", false, false, true);
    if (!api) return 1;
    Spi spi;
    api->RegisterSpi(&spi);
    char front[] = "tcp://127.0.0.1:1";
    api->RegisterFront(front);
    if (std::strcmp(api->GetTradingDay(), "") != 0) return 2;
    api->Init();
    const int reason = spi.WaitForLost(10);
    api->Release();
    if (reason != 4099) {
        std::printf("%s: expected OnFrontLost(4099), got %d\n", how, reason);
        return 3;
    }
    std::printf("%s: ok\n", how);
    return 0;
}
