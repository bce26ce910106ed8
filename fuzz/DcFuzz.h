// Quote-server pieces shared by the DC fuzz targets and the seed
// generator: frames, the answers that build a market model (login, market
// status, name tables, quotations), and an API object connected to a
// socket pair that has been fed them.
#ifndef ORVEX_FUZZ_DC_FUZZ_H
#define ORVEX_FUZZ_DC_FUZZ_H

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "dc/DCThread.h"
#include "codec/DataPackage.h"
#include "fuzz/DecoderTemplates.h"
#include "fuzz/FuzzSupport.h"
#include "fuzz/TouchSpi.h"
#include "protocol/QuoteBodies.h"

namespace orvex_fuzz {

// A whole frame: '@', command * 2 (+1 when compressed), u16 length, body.
inline std::string DcFrame(int command, const std::string& body, bool compressed = false) {
    std::string f;
    f += '@';
    f += static_cast<char>((command << 1) | (compressed ? 1 : 0));
    const uint16_t n = static_cast<uint16_t>(body.size());
    f.append(reinterpret_cast<const char*>(&n), 2);
    f += body;
    return f;
}

constexpr uint32_t kDay = 20240102;
constexpr uint32_t kStatusTime = 93000000;   // HHMMSSmmm

// Markets of the model: the four exchanges' main ids, a deep-feed id that
// Level 0 does not admit, and an id named by the configuration.
inline const std::vector<uint16_t>& ModelMarkets() {
    static const std::vector<uint16_t> ids = {2000, 2001, 2011, 2100, 2211, 2300, 3000};
    return ids;
}

inline std::vector<orvex_test::NameRow> ModelNames(uint16_t market) {
    using orvex_test::NameRow;
    const std::string m = std::to_string(market);
    std::vector<NameRow> rows;
    rows.push_back({"name-" + m, "cu2401", "CU2401", 10, 5, 0});
    rows.push_back({"a name that fills all 33 bytes!!", "al2402", "AL2402", 1, 10, 1});
    rows.push_back({"n", "x1234567890123456789", "ex12345678901234567890", 100, 1, 2});
    rows.push_back({"zero divisor", "zd2403", "ZD2403", 0, 1, 0});
    return rows;
}

inline orvex_test::QuoteRow ModelQuote(uint16_t market, const std::string& code, int32_t base) {
    orvex_test::QuoteRow q;
    q.market = market;
    q.code = code;
    q.date = kDay;
    q.packedTime = orvex_test::PackQuoteTime(9, 30, 1, 500);
    q.preClose = base;
    q.preSettlement = base + 1;
    q.open = base + 2;
    q.high = base + 5;
    q.low = base - 5;
    q.last = base + 3;
    q.upperLimit = base * 2;
    q.lowerLimit = static_cast<int32_t>(0x80000000u);
    q.average = 0;
    q.settlement = 0;
    q.close = 0;
    q.volume = 12.0;
    q.openInterest = 3;
    q.preOpenInterest = 0;
    q.turnover = 1234.5;
    for (int k = 0; k < 5; ++k) {
        q.ask[k] = {base + 10 + k, static_cast<uint32_t>(k + 1)};
        q.bid[k] = {base - 10 - k, static_cast<uint32_t>(k + 2)};
    }
    return q;
}

// Login answer, market status, every name table, and (unless stopped
// before them) every quotation, each as a frame.
inline std::vector<std::string> ModelFrames(bool withQuotations) {
    using namespace orvex_test;
    std::vector<std::string> frames;
    frames.push_back(DcFrame(kCmdLoginRsp, LoginAnswerBody(1, 0, ModelMarkets(), "welcome")));
    std::vector<MarketStatusRow> status;
    for (uint16_t id : ModelMarkets()) {
        MarketStatusRow r;
        r.market = id;
        r.tradingDay = kDay;
        r.status = 1;
        r.status2 = 0;
        r.secondDay = kDay;
        r.timeWord = kStatusTime;
        status.push_back(r);
    }
    frames.push_back(DcFrame(kCmdMarketStatus, MarketStatusBody(static_cast<uint16_t>(status.size()), 0, status)));
    for (uint16_t id : ModelMarkets()) {
        std::vector<NameRow> names = ModelNames(id);
        frames.push_back(DcFrame(kCmdNameTable, NameTableBody(id, static_cast<uint16_t>(names.size()), 0, names)));
    }
    if (withQuotations) {
        for (uint16_t id : ModelMarkets()) {
            std::vector<QuoteRow> rows;
            int32_t base = 1000;
            for (const NameRow& n : ModelNames(id)) rows.push_back(ModelQuote(id, n.marketCode, base += 100));
            frames.push_back(DcFrame(kCmdQuotation, QuotationBody(1, 0, id, static_cast<uint16_t>(rows.size()), 0, rows)));
        }
    }
    return frames;
}

// An API object connected to one end of a socket pair; what it sends is
// read and dropped at the other end.
class DcHarness {
public:
    DcHarness(bool deliverSnapshot, const char* flow = "flow/") {
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, m_fds) != 0) m_fds[0] = m_fds[1] = -1;
        for (int fd : m_fds) {
            if (fd < 0) continue;
            fcntl(fd, F_SETFL, O_NONBLOCK);
            int big = 1 << 20;
            setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &big, sizeof big);
            setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
        }
        api.reset(new CDCThread(flow, deliverSnapshot));
        api->RegisterSpi(&spi);
        api->AttachSocketForTest(m_fds[0]);
    }
    ~DcHarness() {
        api.reset();   // closes its end when still open
        if (m_fds[1] >= 0) close(m_fds[1]);
    }
    DcHarness(const DcHarness&) = delete;
    DcHarness& operator=(const DcHarness&) = delete;

    bool Connected() const { return api->IsConnected(); }

    void Feed(const std::string& bytes) {
        api->OnReceived(bytes.data(), bytes.size());
        Drain();
    }
    void Feed(const uint8_t* data, size_t size) {
        // An exact heap copy, so a read past the input is caught.
        std::unique_ptr<char[]> copy(new char[size ? size : 1]);
        if (size) std::memcpy(copy.get(), data, size);
        api->OnReceived(copy.get(), size);
        Drain();
    }

    // Logs in as a caller would, then receives the answers.
    void BuildModel(bool withQuotations) {
        COrvexWiraReqUserLoginField login;
        std::memset(&login, 0, sizeof login);
        std::strcpy(login.BrokerID, "9999");
        std::strcpy(login.UserID, "trader");
        std::strcpy(login.Password, "secret");
        api->ReqUserLogin(&login, 1);
        Drain();
        for (const std::string& f : ModelFrames(withQuotations)) Feed(f);
    }

    // What a caller would do next: subscribe, query instruments.
    void Subscribe() {
        char a[] = "cu2401";
        char b[] = "al2402.SHFE";
        char c[] = "DCE";
        char d[] = "x1234567890123456789.CFFEX";
        char* ids[] = {a, b, c, d};
        api->SubscribeMarketData(ids, 4);
        api->ServeQueues();
        Drain();
    }
    void Unsubscribe() {
        char a[] = "cu2401";
        char c[] = "DCE";
        char* ids[] = {a, c};
        api->UnSubscribeMarketData(ids, 2);
        api->ServeQueues();
        Drain();
    }
    void QueryInstruments() {
        COrvexWiraQryInstrumentField all;
        std::memset(&all, 0, sizeof all);
        api->ReqQryInstrument(&all, 11);
        COrvexWiraQryInstrumentField shfe;
        std::memset(&shfe, 0, sizeof shfe);
        std::strcpy(shfe.ExchangeID, "SHFE");
        api->ReqQryInstrument(&shfe, 12);
        api->ServeQueues();
        Drain();
    }

    void Drain() {
        char buf[16384];
        while (m_fds[1] >= 0 && recv(m_fds[1], buf, sizeof buf, 0) > 0) {
        }
    }

    TouchSpi spi;
    std::unique_ptr<CDCThread> api;

private:
    int m_fds[2] = {-1, -1};
};

// The template table of the decoder target, loaded for the template
// packages of dynamic information.
inline void LoadDcTemplates() {
    WriteFile("qxdctrans.xml", kDecoderTemplates);
    if (!LoadPackageTemplate("qxdctrans.xml")) {
        std::fprintf(stderr, "template table not loaded\n");
        std::abort();
    }
}

// Configuration read by the API objects made after it is written: the
// settings given, and a market named by the configuration whose instruments
// are reported by exchange code.
inline void WriteDcConfig(bool log = false, bool delta = false, bool subscribe = false, int level = 0) {
    const std::string text = "[CONFIG]\nLog=" + std::to_string(log) + "\nDeltaQuot=" + std::to_string(delta) +
                             "\nSubscribe=" + std::to_string(subscribe) + "\nLevel=" + std::to_string(level) +
                             "\n[EXCHANGE]\n3000=INE\n[BRCODE]\nINE=1\n";
    WriteFile("OrvexWiraMdApi.def", text);
}

}  // namespace orvex_fuzz

#endif
