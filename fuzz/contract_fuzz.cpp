// Contract files: the input is a cached contract file. A file list naming
// it with its size, time and MD5 makes the worker verify it against the
// cache (ProcessMktFileList -> CheckMktFileList), and LoadMktField then
// parses it into instrument records, exactly as after a download.
#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "fuzz/FuzzSupport.h"
#include "fuzz/QxsfFuzz.h"
#include "fuzz/TouchSpi.h"
#include "sf/QXSFThread.h"

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv) {
    orvex_fuzz::PrepareRun(argc, argv);
    mkdir("cache", 0775);
    orvex_fuzz::WriteFile("cache/cache.ini", "[shfe]\nlowtime=100\nhightime=200\n");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string content(reinterpret_cast<const char*>(data), size);
    orvex_fuzz::WriteFile("cache/shfe_base_1.json", content);

    _QryInstrumentInfo query{};
    query.nRequestID = 9;
    orvex_fuzz::TouchSpi spi;
    CQXSFThread worker("", &query, {"SHFE"});
    worker.RegisterSpi(&spi);
    worker.UpLoadMarket();

    std::vector<char> page = orvex_fuzz::ListPage("contract", 1, 0, {{"shfe_base_1.json", content, {100, 200}}});
    if (!worker.ProcessMktFileList(page.data(), static_cast<int>(page.size()))) std::abort();
    if (!worker.IsOver()) std::abort();   // the cached copy must count as verified

    QxsfContractMap contracts;
    worker.LoadMktField(contracts);
    for (const auto& market : contracts) {
        spi.sum += orvex_fuzz::Touch(market.first);
        for (const auto& inst : market.second) {
            spi.sum += orvex_fuzz::Touch(inst.first);
            spi.Read(&inst.second);
        }
    }
    orvex_fuzz::Keep(spi.sum);
    return 0;
}
