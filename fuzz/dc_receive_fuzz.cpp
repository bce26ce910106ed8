// Quote-server receive path: an API object (not started) with a whole
// market model, connected to a socket pair, gets the input as raw stream
// bytes through OnReceived: frame cutting, inflation, dispatch by command
// and every handler. Afterwards instruments are queried from the model.
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>

#include "fuzz/DcFuzz.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    orvex_fuzz::PrepareRun(argc, argv);
    mkdir("flow", 0775);
    orvex_fuzz::WriteDcConfig();
    orvex_fuzz::LoadDcTemplates();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    orvex_fuzz::DcHarness h(true);
    h.BuildModel(true);
    if (!h.Connected()) {
        std::fprintf(stderr, "the model frames closed the connection\n");
        std::abort();
    }
    h.Feed(data, size);
    h.QueryInstruments();
    orvex_fuzz::Keep(h.spi.sum);
    return 0;
}
