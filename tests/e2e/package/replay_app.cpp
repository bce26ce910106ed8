// A strategy-shaped application on the installed replay library: it replays
// the journal named on its command line as fast as possible and expects the
// recorded link, depth records and a trading day.
#include <atomic>
#include <cstdio>
#include <cstring>

#include "OrvexWiraMdReplay.h"

namespace {

class Spi : public COrvexWiraMdSpi {
public:
    explicit Spi(COrvexWiraMdApi* api) : m_api(api) {}
    void OnFrontLinked() override {
        ++linked;
        COrvexWiraReqUserLoginField req;
        std::memset(&req, 0, sizeof(req));
        m_api->ReqUserLogin(&req, 1);
    }
    void OnDepthMarketData(COrvexWiraDepthMarketDataField*) override { ++depths; }
    std::atomic<int> linked{0}, depths{0};

private:
    COrvexWiraMdApi* m_api;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 1;
    const char* how = argv[1];
    if (CreateWiraReplayApi("no/such/journal", 0) != nullptr) return 2;
    COrvexWiraMdApi* api = CreateWiraReplayApi(argv[2], 0);
    if (!api) return 3;
    Spi spi(api);
    api->RegisterSpi(&spi);
    api->Init();
    api->Join();
    const bool ok = spi.linked.load() >= 1 && spi.depths.load() > 0 && std::strlen(api->GetTradingDay()) == 8;
    std::printf("%s: replay %s (%d depth records, trading day %s)\n", how, ok ? "ok" : "FAILED", spi.depths.load(),
                api->GetTradingDay());
    api->Release();
    return ok ? 0 : 4;
}
