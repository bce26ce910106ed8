// A host for the market-data engine without a connection: it records every
// request the engine asks to send, every login effect, every hand-over to
// the file service and every log line, and answers from fields a test sets.
#ifndef ORVEX_TESTS_FAKE_ENGINE_HOST_H
#define ORVEX_TESTS_FAKE_ENGINE_HOST_H

#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "dc/MdEngine.h"

namespace orvex_test {

class FakeEngineHost : public IMdEngineHost {
public:
    struct HandOver {
        _QryInstrumentInfo query;
        std::vector<std::string> markets;
    };

    int ReqMarketNametable(int market) override { return Sent(kCmdNameTable, market); }
    int ReqMarketStatus(int market) override { return Sent(kCmdMarketStatus, market); }
    int ReqQuotation(int market) override { return Sent(kCmdQuotation, market); }
    int SubscribeDynainfo(int selector) override { return Sent(kCmdSubscribeDynainfo, selector); }
    bool MayDispatch() override { return dispatching; }
    bool StillConnected() override { return connected; }
    void FillLoginIdentity(COrvexWiraRspUserLoginField* rsp) override {
        std::strncpy(rsp->BrokerID, brokerId.c_str(), sizeof(rsp->BrokerID) - 1);
        std::strncpy(rsp->UserID, userId.c_str(), sizeof(rsp->UserID) - 1);
        rsp->FrontID = frontId;
    }
    int TakeRequestId(unsigned short handle) override {
        auto it = requestIds.find(handle);
        if (it == requestIds.end()) return handle;
        int id = it->second;
        requestIds.erase(it);
        return id;
    }
    void LoginAccepted() override { ++accepted; }
    void LoginRefused(int code) override {
        refused.push_back(code);
        connected = false;
    }
    void SaveFamilyAccess(const CFamilyAccess&) override { ++saves; }
    bool HandOverQuery(const _QryInstrumentInfo& query, std::vector<std::string> markets,
                       COrvexWiraMdSpi*) override {
        if (!fileService) return false;
        handOvers.push_back({query, std::move(markets)});
        return true;
    }
    void DumpLog(const char* text) override { log += std::string(text) + "\n"; }

    // Requests since the last call: command and market (or selector).
    std::vector<std::pair<int, int>> TakeRequests() {
        std::vector<std::pair<int, int>> out;
        out.swap(requests);
        return out;
    }

    // What the host answers.
    bool dispatching = true;
    bool connected = true;
    bool fileService = false;
    std::string brokerId = "9999";
    std::string userId = "trader";
    int frontId = 0;
    std::map<unsigned short, int> requestIds;

    // What the engine did.
    std::vector<std::pair<int, int>> requests;
    int accepted = 0;
    std::vector<int> refused;
    int saves = 0;
    std::vector<HandOver> handOvers;
    std::string log;

private:
    int Sent(int command, int market) {
        requests.push_back({command, market});
        return 1;
    }
};

}  // namespace orvex_test

#endif
