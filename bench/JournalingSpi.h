// The benchmarks' callback object with md-record's journal attached: every
// callback is journaled first (the recorder's JournalSpi and JournalWriter),
// then recorded for the measurement as BenchSpi does.
#ifndef ORVEX_BENCH_JOURNALING_SPI_H
#define ORVEX_BENCH_JOURNALING_SPI_H

#include "LibraryClient.h"
#include "journal/JournalSpi.h"
#include "journal/JournalWriter.h"

namespace orvex_bench {

class JournalingSpi : public BenchSpi {
public:
    explicit JournalingSpi(orvex::journal::JournalWriter& writer) : m_journal(&writer, {}) {}

    void OnFrontLinked() override {
        m_journal.OnFrontLinked();
        BenchSpi::OnFrontLinked();
    }
    void OnFrontLost(int reason) override {
        m_journal.OnFrontLost(reason);
        BenchSpi::OnFrontLost(reason);
    }
    void OnLoginAnswer(COrvexWiraRspUserLoginField* rsp, COrvexWiraRspInfoField* info, int id, bool last) override {
        m_journal.OnLoginAnswer(rsp, info, id, last);
        BenchSpi::OnLoginAnswer(rsp, info, id, last);
    }
    void OnDepthMarketData(COrvexWiraDepthMarketDataField* d) override {
        m_journal.OnDepthMarketData(d);
        BenchSpi::OnDepthMarketData(d);
    }
    void OnStatusChange(COrvexWiraMarketStatusField* s) override {
        m_journal.OnStatusChange(s);
        BenchSpi::OnStatusChange(s);
    }
    uint64_t Journaled(uint16_t kind) const { return m_journal.Count(kind); }

private:
    struct Journal final : orvex::journal::JournalSpi {
        using JournalSpi::JournalSpi;
    };
    Journal m_journal;
};

}  // namespace orvex_bench

#endif
