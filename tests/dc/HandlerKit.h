// Fixture for the market data handlers: an engine fed directly through its
// handlers (no connection, no thread), a recording callback object, and a
// fake host that records the requests the handlers ask for. It runs in a
// scratch working directory, where a test may write the configuration file
// before making the engine.
#ifndef ORVEX_TESTS_DC_HANDLER_KIT_H
#define ORVEX_TESTS_DC_HANDLER_KIT_H

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cfloat>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "base/Clock.h"
#include "base/IniFile.h"
#include "dc/MdEngine.h"
#include "support/FakeEngineHost.h"
#include "support/FakeQuoteServer.h"
#include "protocol/QuoteBodies.h"
#include "support/RecordingSpi.h"

namespace orvex_test {

// Market status answer in one packet: creates the markets and exchanges.
inline void FeedStatus(CMdEngine& engine, const std::vector<MarketStatusRow>& rows) {
    std::string body = MarketStatusBody(static_cast<uint16_t>(rows.size()), 0, rows);
    engine.ProcessMkStatusRsp(body.data(), static_cast<int>(body.size()));
}

// Whole name table of a market in one packet.
inline void FeedNames(CMdEngine& engine, uint16_t market, const std::vector<NameRow>& rows) {
    std::string body = NameTableBody(market, static_cast<uint16_t>(rows.size()), 0, rows);
    engine.ProcessNametableRsp(body.data(), static_cast<int>(body.size()));
}

class HandlerTest : public ::testing::Test {
protected:
    void SetUp() override { MakeEngine(); }
    void TearDown() override { engine.reset(); }

    // A new engine with these settings; [EXCHANGE] and [BRCODE] come from
    // ./OrvexWiraMdApi.def, read now.
    void MakeEngine(MdEngineSettings settings = MdEngineSettings()) {
        engine.reset();
        config = CIniFile();
        config.SetPath("./OrvexWiraMdApi.def");
        config.CaseInsensitive();
        config.ReadFile();
        settings.config = &config;
        engine.reset(new CMdEngine(host, settings));
        engine->SetSpi(&spi);
    }
    // Settings with one change, for MakeEngine(With(...)).
    template <class F>
    static MdEngineSettings With(F change) {
        MdEngineSettings s;
        change(s);
        return s;
    }

    void Status(const std::vector<MarketStatusRow>& rows) { FeedStatus(*engine, rows); }
    void Names(uint16_t market, const std::vector<NameRow>& rows) { FeedNames(*engine, market, rows); }

    // Whole quotation of a market in one packet.
    void Quotes(uint16_t market, const std::vector<QuoteRow>& rows) {
        std::string body = QuotationBody(1, 0, market, static_cast<uint16_t>(rows.size()), 0, rows);
        engine->ProcessQuotationRsp(body.data(), static_cast<int>(body.size()));
    }

    void Dyna(const std::string& body) { engine->ProcessDynainfo(body.data(), static_cast<unsigned>(body.size())); }

    CQxInstrument* Inst(uint16_t market, const char* code) {
        CQxMarket* m = engine->FindMarket(market);
        return m ? m->FindInstrument(code) : nullptr;
    }

    // Every log line the engine wrote.
    const std::string& LogText() const { return host.log; }

    ScopedTempDir dir;
    RecordingSpi spi;
    FakeEngineHost host;
    CIniFile config;
    std::unique_ptr<CMdEngine> engine;
};

// A heap copy of exactly the body's bytes, so that a read past its end is
// caught by the address sanitizer.
inline std::vector<char> Exact(const std::string& body) { return std::vector<char>(body.begin(), body.end()); }

inline uint16_t BodyU16(const std::string& body, size_t offset) {
    uint16_t v = 0;
    if (offset + 2 <= body.size()) std::memcpy(&v, body.data() + offset, 2);
    return v;
}

}  // namespace orvex_test

#endif
