// A minimal application built against the installed headers alone: it
// connects to the front given on the command line, logs in, waits for the
// answer and releases the API object. Exit code 0 means the login answer
// arrived with ErrorID 0.
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>

#include "OrvexWiraMdApi.h"

namespace {

class App : public COrvexWiraMdSpi {
public:
    explicit App(COrvexWiraMdApi* api) : m_api(api) {}
    void OnFrontLinked() override {
        COrvexWiraReqUserLoginField req;
        std::memset(&req, 0, sizeof(req));
        std::strcpy(req.BrokerID, "0001");
        std::strcpy(req.UserID, "demo");
        std::strcpy(req.Password, "demo");
        m_api->ReqUserLogin(&req, 7);
    }
    void OnLoginAnswer(COrvexWiraRspUserLoginField*, COrvexWiraRspInfoField* info, int id, bool) override {
        result = (info->ErrorID == 0 && id == 7) ? 0 : 3;
        done = true;
    }
    std::atomic<bool> done{false};
    std::atomic<int> result{2};

private:
    COrvexWiraMdApi* m_api;
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) return 1;
    COrvexWiraMdApi* api = CreateWiraMdApi("", false, false, false);
    App app(api);
    api->RegisterSpi(&app);
    api->RegisterFront(argv[1]);
    api->Init();
    for (int i = 0; i < 500 && !app.done; ++i) usleep(10 * 1000);
    api->Release();
    std::printf("login %s\n", app.done ? "answered" : "timed out");
    return app.result;
}
