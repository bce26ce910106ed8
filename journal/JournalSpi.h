// A callback object that journals every callback it gets.
//
// Each callback is stamped with the wall clock and handed to a
// JournalWriter; nothing here waits on the disk. A login answer that
// carries a trading day switches the writer to that day's file before it
// is journaled, and so does a status report or depth record of a later
// trading day than the current one (a market that rolled over without a new
// login); days never go back, so markets that roll at different moments do
// not flap between files. An application that wants to act on the callbacks too
// derives from it and calls the base first.
//
// Template records have no size of their own in the interface; the sizes
// come from the template file (package id -> bytes). A template record of a
// package without a size is not journaled and is counted as skipped.
#ifndef ORVEX_JOURNAL_SPI_H
#define ORVEX_JOURNAL_SPI_H

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "OrvexWiraMdApi.h"
#include "journal/JournalWriter.h"

namespace orvex {
namespace journal {

class JournalSpi : public COrvexWiraMdSpi {
public:
    // Without a writer nothing is journaled; Tap still sees every callback.
    JournalSpi(JournalWriter* writer, std::map<int, int> templateSizes)
        : m_writer(writer), m_templateSizes(std::move(templateSizes)) {}

    void OnFrontLinked() override;
    void OnFrontLost(int nReason) override;
    void OnLoginAnswer(COrvexWiraRspUserLoginField* pRspUserLogin, COrvexWiraRspInfoField* pRspInfo, int nRequestID,
                       bool bIsLast) override;
    void OnInstrumentAnswer(COrvexWiraInstrumentField* pInstrument, COrvexWiraRspInfoField* pRspInfo, int nRequestID,
                            bool bIsLast) override;
    void OnDepthMarketData(COrvexWiraDepthMarketDataField* pDepthMarketData) override;
    void OnStatusChange(COrvexWiraMarketStatusField* pStatus) override;
    void OnTemplateData(unsigned short nPackageID, void* pData) override;

    // Callbacks seen, by kind (index: EntryKind).
    uint64_t Count(uint16_t kind) const { return kind < 9 ? m_counts[kind].load(std::memory_order_relaxed) : 0; }
    uint64_t TemplatesSkipped() const { return m_templatesSkipped.load(std::memory_order_relaxed); }

protected:
    ~JournalSpi() = default;
    // Every journaled callback as its entry, with its receive time, on the
    // library's thread: a second sink hooks in here.
    virtual void Tap(uint16_t kind, int64_t time, const void* payload, uint32_t size) {
        (void)kind, (void)time, (void)payload, (void)size;
    }

private:
    void Add(uint16_t kind, uint16_t aux, const void* payload, uint32_t size);
    // Moves the writer on when `text` (YYYYMMDD) is later than the current day.
    void SeeDay(const char* text, size_t width);
    template <typename R>
    void AddAnswer(uint16_t kind, const R* record, const COrvexWiraRspInfoField* info, int requestId, bool isLast);

    JournalWriter* m_writer;
    const std::map<int, int> m_templateSizes;
    std::atomic<uint64_t> m_counts[9] = {};
    std::atomic<uint32_t> m_day{0};
    std::atomic<uint64_t> m_dayBytes{0};   // the text of m_day as last seen
    std::atomic<uint64_t> m_templatesSkipped{0};
};

}  // namespace journal
}  // namespace orvex

#endif
