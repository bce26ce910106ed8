// A callback object for the fuzz targets: it reads every byte of every
// record it is handed, so that a record built from stale or foreign memory
// shows up under the sanitizers, and otherwise does nothing.
#ifndef ORVEX_FUZZ_TOUCH_SPI_H
#define ORVEX_FUZZ_TOUCH_SPI_H

#include <cstring>

#include "api/OrvexWiraMdApi.h"
#include "codec/DataPackage.h"
#include "fuzz/FuzzSupport.h"

namespace orvex_fuzz {

class TouchSpi : public COrvexWiraMdSpi {
public:
    template <class T>
    void Read(const T* p) {
        if (p) sum += Touch(p, sizeof *p);
    }

    void OnFrontLinked() override { ++calls; }
    void OnFrontLost(int reason) override { sum += static_cast<unsigned>(reason); }
    void OnLoginAnswer(COrvexWiraRspUserLoginField* rsp, COrvexWiraRspInfoField* info, int id, bool last) override {
        Read(rsp);
        Read(info);
        sum += static_cast<unsigned>(id) + (last ? 1u : 0u);
    }
    void OnInstrumentAnswer(COrvexWiraInstrumentField* inst, COrvexWiraRspInfoField* info, int id,
                            bool last) override {
        Read(inst);
        Read(info);
        sum += static_cast<unsigned>(id) + (last ? 1u : 0u);
    }
    void OnDepthMarketData(COrvexWiraDepthMarketDataField* d) override {
        Read(d);
        ++calls;
    }
    void OnStatusChange(COrvexWiraMarketStatusField* s) override { Read(s); }
    void OnExtraRecord(void* p) override { sum += p ? 1u : 0u; }
    // Reads the whole record, as long as its template lays it out.
    void OnTemplateData(unsigned short id, void* p) override {
        const CQxDataPackage* tmpl = FindPackageTemplate(id);
        sum += id;
        if (!tmpl || !p) return;
        const unsigned char* bytes = static_cast<const unsigned char*>(p);
        for (int i = 0; i < tmpl->size; ++i) sum += bytes[i];
    }

    unsigned sum = 0;
    unsigned calls = 0;
};

}  // namespace orvex_fuzz

#endif
