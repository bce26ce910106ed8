// Fixture for the market data handlers: an API object on a scratch working
// directory with a recording callback object, fed directly through its
// handlers (no worker thread, no server). Requests the handlers send arrive
// at the far end of a socket pair.
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
#include "dc/DCThread.h"
#include "support/FakeQuoteServer.h"
#include "protocol/QuoteBodies.h"
#include "support/RecordingSpi.h"

namespace orvex_test {

class HandlerTest : public ::testing::Test {
protected:
    void SetUp() override { MakeApi(true); }

    void TearDown() override {
        api.reset();
        if (m_peer >= 0) close(m_peer);
    }

    // A new API object (the configuration file, if any, is read now).
    void MakeApi(bool deliverSnapshot) {
        api.reset();
        api.reset(new CDCThread(dir.Path().c_str(), deliverSnapshot));
        api->RegisterSpi(&spi);
    }

    // Connects the API object to a socket pair so that sent frames can be
    // read back with SentFrames().
    void AttachPeer() {
        int fds[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, fds), 0);
        fcntl(fds[1], F_SETFL, O_NONBLOCK);
        api->m_socket = fds[0];
        m_peer = fds[1];
    }

    // Every frame sent since the last call.
    std::vector<DcFrame> SentFrames() {
        char buf[8192];
        ssize_t n;
        while (m_peer >= 0 && (n = recv(m_peer, buf, sizeof(buf), 0)) > 0) m_pending.append(buf, static_cast<size_t>(n));
        return CutDcFrames(m_pending);
    }

    // Market status answer in one packet: creates the markets and exchanges.
    void Status(const std::vector<MarketStatusRow>& rows) {
        std::string body = MarketStatusBody(static_cast<uint16_t>(rows.size()), 0, rows);
        api->ProcessMkStatusRsp(body.data(), static_cast<int>(body.size()));
    }

    // Whole name table of a market in one packet.
    void Names(uint16_t market, const std::vector<NameRow>& rows) {
        std::string body = NameTableBody(market, static_cast<uint16_t>(rows.size()), 0, rows);
        api->ProcessNametableRsp(body.data(), static_cast<int>(body.size()));
    }

    // Whole quotation of a market in one packet.
    void Quotes(uint16_t market, const std::vector<QuoteRow>& rows) {
        std::string body = QuotationBody(1, 0, market, static_cast<uint16_t>(rows.size()), 0, rows);
        api->ProcessQuotationRsp(body.data(), static_cast<int>(body.size()));
    }

    void Dyna(const std::string& body) { api->ProcessDynainfo(body.data(), static_cast<unsigned>(body.size())); }

    CQxInstrument* Inst(uint16_t market, const char* code) {
        CQxMarket* m = api->FindMarket(market);
        return m ? m->FindInstrument(code) : nullptr;
    }

    // Today's log of the API object, or "".
    std::string LogText() {
        std::ifstream in(dir.Path() + "/Orvex_" + std::to_string(orvex::TodayYmd()) + ".log");
        std::stringstream ss;
        ss << in.rdbuf();
        return ss.str();
    }

    ScopedTempDir dir;
    RecordingSpi spi;
    std::unique_ptr<CDCThread> api;

private:
    int m_peer = -1;
    std::string m_pending;
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
