// Dynamic information: market status changes and pushed quote rows that keep
// the model current between snapshots, and template packages.
//
// A body is a run of records: u32 sequence, u8 type, u16 payload length,
// payload. A record whose payload would run past the body ends the walk.
// DC worker thread only; a pushed row allocates nothing.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "base/Time64.h"
#include "dc/DCThread.h"

namespace {

template <class T>
T Rd(const char* p) {
    T v;
    std::memcpy(&v, p, sizeof(v));
    return v;
}

__attribute__((format(printf, 3, 4))) void PrintField(char* dst, size_t size, const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::vsnprintf(dst, size, format, args);
    va_end(args);
}

constexpr unsigned kRecordHead = 7;
constexpr int kStatusPayload = 16;
constexpr int kPushHead = 39;     // masks, market, code, date, time

enum : uint8_t { kTypeStatus = 0, kTypePush = 1, kTypeTemplate = 2 };

// A pushed row more than this many seconds ahead of the market's clock is
// stale (it belongs to an earlier day); the same bound decides whether a
// row that looks older than the market belongs to a later day.
constexpr int64_t kStaleSpan = 60000;

// Days a row's date may be carried forward one at a time; an instrument
// that has not quoted for longer jumps straight to the market's day, which
// is where the stepping would have ended.
constexpr int kMaxDaySteps = 366;

CTime64 TimeOfDate(uint32_t ymd, unsigned h, unsigned mi, unsigned s, unsigned ms) {
    return CTime64(ymd / 10000, ymd / 100 % 100, ymd % 100, h, mi, s, ms);
}

}  // namespace

void CDCThread::ProcessTemplatePackage(unsigned short packageId, const char* data, int length) {
    // Template packages carry nothing the depth and status records need.
    (void)packageId;
    (void)data;
    (void)length;
}

void CDCThread::ProcessDynainfo(const char* body, unsigned int length) {
    if (!body) return;
    unsigned int pos = 0;
    while (pos + kRecordHead <= length) {
        const char* rec = body + pos;
        const uint8_t type = Rd<uint8_t>(rec + 4);
        const unsigned int payloadLength = Rd<uint16_t>(rec + 5);
        if (payloadLength > length - pos - kRecordHead) return;
        m_nDynainfoSequence = Rd<uint32_t>(rec);
        const char* payload = rec + kRecordHead;
        pos += kRecordHead + payloadLength;

        if (type == kTypeStatus) {
            if (payloadLength < static_cast<unsigned>(kStatusPayload)) continue;
            const uint16_t id = Rd<uint16_t>(payload);
            const uint32_t tradingDay = Rd<uint32_t>(payload + 2);
            const uint8_t code = Rd<uint8_t>(payload + 6);
            const uint8_t code2 = Rd<uint8_t>(payload + 7);
            const uint32_t secondDay = Rd<uint32_t>(payload + 8);
            const uint32_t timeWord = Rd<uint32_t>(payload + 12);
            CQxMarket* market = FindMarket(id);
            if (!market) continue;

            if (market->tradingDay != tradingDay && code != 0) {
                // A new trading day: the market's instruments are listed
                // anew. The two status codes are stored crosswise here.
                market->tradingDay = tradingDay;
                market->secondDay = secondDay;
                market->timeWord = timeWord;
                market->status = code2;
                market->status2 = code;
                market->NameTableComplete = false;
                ReqMarketNametable(id);
            } else {
                if (secondDay < market->secondDay || (secondDay == market->secondDay && timeWord <= market->timeWord))
                    continue;
                if (market->tradingDay == tradingDay) {
                    market->secondDay = secondDay;
                    market->timeWord = timeWord;
                    market->status = code;
                    market->status2 = code2;
                }
            }
            if (id == m_extraMarket.ids[0])
                PrintField(m_szTradingDay, sizeof(m_szTradingDay), "%d", static_cast<int>(tradingDay));

            COrvexWiraMdSpi* spi = Spi();
            if (!spi) continue;
            COrvexWiraMarketStatusField status;
            FillStatusRecord(&status, market->exchangeCode, tradingDay, secondDay, timeWord, StatusChar(code));
            CQxExchange* exchange = FindExchange(std::string_view(market->exchangeCode));
            CQxMarket* main = exchange ? exchange->GetMainMarket() : nullptr;
            if (main && main->marketId == id) spi->OnStatusChange(&status);
        } else if (type == kTypePush) {
            if (payloadLength < static_cast<unsigned>(kPushHead)) continue;
            const char* row = payload;
            const char* code = row + 10;
            const std::string_view codeView(code, strnlen(code, 21));
            const int codeLen = static_cast<int>(codeView.size());
            CQxMarket* market = FindMarket(Rd<uint16_t>(row + 8));
            if (!market) {
                if (m_bLog) Log("Can not find Family:%.*s", codeLen, code);
                continue;
            }
            if (!Level(market->marketId)) continue;
            CQxExchange* exchange = FindExchange(std::string_view(market->exchangeCode));
            CQxInstrument* inst = market->FindInstrument(codeView);
            if (!inst) {
                if (m_bLog) Log("Can not find Instrument:%.*s", codeLen, code);
                continue;
            }

            if (inst->quoteDate == 0) {
                inst->quoteDate = market->secondDay;
                inst->quoteTime = market->timeWord;
            }
            const uint32_t packed = Rd<uint32_t>(row + 35);
            const unsigned h = packed >> 22, mi = (packed >> 16) & 0x3F, s = (packed >> 10) & 0x3F,
                           ms = packed & 0x3FF;
            const uint32_t qt = h * 10000000u + mi * 100000u + s * 1000u + ms;
            const uint32_t dd = inst->quoteDate, dt = inst->quoteTime;
            const uint32_t md = market->secondDay, mt = market->timeWord;

            // Date of the row: the instrument's own date, or, when the row is
            // behind the market's clock, the day that brings it level.
            CTime64 a = TimeOfDate(dd, h, mi, s, ms);
            const CTime64 b = TimeOfDate(md, mt / 10000000u, mt % 10000000u / 100000u, mt % 100000u / 1000u,
                                         mt % 1000u);
            uint32_t n;
            bool stale = false;
            if (!(a < b)) {
                if (a.GetSpanSeconds(b) <= kStaleSpan - 1) n = dd;
                else stale = true;
            } else {
                int steps = 0;
                while (a < b && steps < kMaxDaySteps) {
                    a.NextDay();
                    ++steps;
                }
                if (a < b) {
                    a = CTime64(b.GetYear(), b.GetMonth(), b.GetDay(), h, mi, s, ms);
                    if (a < b) a.NextDay();
                }
                if (a.GetSpanSeconds(b) < kStaleSpan)
                    n = static_cast<uint32_t>(a.GetYear()) * 10000u + static_cast<uint32_t>(a.GetMonth()) * 100u +
                        static_cast<uint32_t>(a.GetDay());
                else
                    n = dd;
            }
            if (stale || !((dd == n && dt <= qt) || dd < n)) {
                if (m_bLog)
                    Log("Filter:%.*s,QT:%u,MD:%u,MT:%u,DD:%u,DT:%u", codeLen, code, qt, md, mt, dd, dt);
                continue;
            }

            inst->quoteDate = n;
            inst->quoteTime = qt;
            inst->pushedDate = Rd<uint32_t>(row + 31);
            COrvexWiraDepthMarketDataField out;
            const bool applied = m_bDeltaQuot
                                     ? ProcessPushQuotationDelta(row, static_cast<int>(payloadLength), inst, nullptr, &out)
                                     : ProcessPushQuotation(row, static_cast<int>(payloadLength), inst, &out);
            COrvexWiraMdSpi* spi = Spi();
            if (!applied || !spi) continue;
            if (m_bSubscribe) {
                if (!exchange) continue;
                if (!exchange->WholeExchange &&
                    exchange->subscribed.find(std::string_view(out.InstrumentID)) == exchange->subscribed.end())
                    continue;
            }
            spi->OnDepthMarketData(&out);
        } else if (type == kTypeTemplate) {
            if (payloadLength < 2) continue;
            ProcessTemplatePackage(Rd<uint16_t>(payload), payload + 2, static_cast<int>(payloadLength - 2));
        }
    }
}
