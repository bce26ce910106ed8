// An application as a user writes it: installed headers and library only.
#include <cstdio>
#include <cstring>

#include "OrvexWiraMdApi.h"

class Spi : public COrvexWiraMdSpi {
public:
    void OnFrontLost(int reason) override { lost = reason; }
    int lost = -1;
};

int main() {
    COrvexWiraMdApi* api = CreateWiraMdApi("", false, false, true);
    if (!api) return 1;
    Spi spi;
    api->RegisterSpi(&spi);
    char front[] = "tcp://127.0.0.1:1";
    api->RegisterFront(front);
    if (std::strcmp(api->GetTradingDay(), "") != 0) return 2;
    COrvexWiraQryInstrumentField q;
    std::memset(&q, 0, sizeof(q));
    if (api->ReqQryInstrument(nullptr, 1) != -1) return 3;
    if (api->ReqQryInstrument(&q, 1) != 0) return 4;
    if (api->ReqUserLogout(nullptr, 1) != 0) return 5;
    api->Release();
    std::puts("consumer ok");
    return 0;
}
