// Quote-server handlers reached directly: the first byte of the input
// chooses the command and the settings, the rest is the body of one frame
// with a valid header, fed to an API object that holds a market model.
//
//   bits 0-2  command: 1 name table, 2 market status, 3 quotation,
//             82 / 83 login answers, 101 dynamic information (5-7)
//   bit 3     log on (the handlers' log lines are formatted)
//   bit 4     DeltaQuot      bit 5  Subscribe (with some subscriptions)
//   bit 6     Level 1
//   bit 7     the model is still loading: no quotation has arrived yet, so
//             dynamic information is held back and replayed when the
//             quotation that follows the fuzzed frame completes the load
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "fuzz/DcFuzz.h"

namespace {

const int kCommands[8] = {kCmdNameTable, kCmdMarketStatus, kCmdQuotation, kCmdLoginRsp,
                          kCmdLoginRsp1, kCmdDynainfo,     kCmdDynainfo,  kCmdDynainfo};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    orvex_fuzz::PrepareRun(argc, argv);
    mkdir("flow", 0775);
    orvex_fuzz::WriteDcConfig();
    orvex_fuzz::LoadDcTemplates();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const uint8_t sel = data[0];
    const int command = kCommands[sel & 7];
    const bool log = (sel & 0x08) != 0;
    const bool loading = (sel & 0x80) != 0;
    size_t bodyLength = size - 1;
    if (bodyLength > static_cast<size_t>(kDcMaxBody)) bodyLength = kDcMaxBody;

    const bool subscribe = (sel & 0x20) != 0;
    if (log) orvex_fuzz::EmptyDir("flow");
    orvex_fuzz::WriteDcConfig(log, (sel & 0x10) != 0, subscribe, (sel & 0x40) != 0 ? 1 : 0);
    orvex_fuzz::DcHarness h(true);
    h.BuildModel(!loading);
    if (subscribe) h.Subscribe();

    std::string frame(4 + bodyLength, '\0');
    frame[0] = '@';
    frame[1] = static_cast<char>(command << 1);
    const uint16_t n = static_cast<uint16_t>(bodyLength);
    std::memcpy(&frame[2], &n, 2);
    if (bodyLength) std::memcpy(&frame[4], data + 1, bodyLength);
    h.Feed(reinterpret_cast<const uint8_t*>(frame.data()), frame.size());

    if (loading && h.Connected()) {
        // The first quotation ends the load and replays what was held.
        using namespace orvex_test;
        const uint16_t id = orvex_fuzz::ModelMarkets()[0];
        std::vector<QuoteRow> rows = {orvex_fuzz::ModelQuote(id, "cu2401", 1500)};
        h.Feed(orvex_fuzz::DcFrame(kCmdQuotation, QuotationBody(1, 0, id, 1, 0, rows)));
    }
    if (subscribe) h.Unsubscribe();
    h.QueryInstruments();
    orvex_fuzz::Keep(h.spi.sum);
    return 0;
}
