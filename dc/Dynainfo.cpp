// Dynamic information: market status changes and pushed quote rows that keep
// the model current between snapshots, and template packages, each turned
// into the flat record its template lays out and handed to OnTemplateData.
//
// A body is a run of records: u32 sequence, u8 type, u16 payload length,
// payload. A record whose payload would run past the body ends the walk.
// DC worker thread only; a pushed row allocates nothing.
#include <emmintrin.h>

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "base/Time64.h"
#include "codec/DataPackage.h"
#include "codec/PackageRecord.h"
#include "dc/MdEngine.h"
#include "dc/WireText.h"

namespace {

using dcwire::CopyText;
using dcwire::PrintField;
using dcwire::PrintInt;
using dcwire::Rd;

constexpr unsigned kRecordHead = 7;
constexpr unsigned kStatusPayload = 16;
constexpr unsigned kPushHead = 39;   // masks, market, code, date, time

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

// The date a pushed row belongs to; false when the row is stale. dd is the
// instrument's date, b the market's clock, h:mi:s.ms the row's time of day.
bool RowDate(uint32_t dd, const CTime64& b, unsigned h, unsigned mi, unsigned s, unsigned ms, uint32_t* n) {
    CTime64 a = TimeOfDate(dd, h, mi, s, ms);
    if (!(a < b)) {
        *n = dd;
        return a.GetSpanSeconds(b) <= kStaleSpan - 1;
    }
    // Behind the market: carry the row forward to the day that brings it
    // level with the market's clock.
    int steps = 0;
    while (a < b && steps < kMaxDaySteps) {
        a.NextDay();
        ++steps;
    }
    if (a < b) {
        a = CTime64(b.GetYear(), b.GetMonth(), b.GetDay(), h, mi, s, ms);
        if (a < b) a.NextDay();
    }
    if (a.GetSpanSeconds(b) >= kStaleSpan) *n = dd;
    else *n = a.GetYear() * 10000u + a.GetMonth() * 100u + a.GetDay();
    return true;
}

// strnlen(code, 21) for the code field of a pushed row: the first 16 bytes
// are tested at once (the row's head always holds them), the rest one by one.
size_t CodeLength(const char* code) {
    const __m128i bytes = _mm_loadu_si128(reinterpret_cast<const __m128i*>(code));
    const unsigned zeros = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(bytes, _mm_setzero_si128())));
    if (zeros != 0) return static_cast<size_t>(__builtin_ctz(zeros));
    size_t n = 16;
    while (n < 21 && code[n] != '\0') ++n;
    return n;
}

}  // namespace

// Delivery filter shared by all pushes: in subscription mode only what the
// exchange has subscribed (or the whole exchange) reaches the caller. The
// exchange is looked up only then.
bool CMdEngine::Subscribed(const CQxMarket& market, const char* instrumentId) {
    if (!m_settings.subscribe) return true;
    const CQxExchange* exchange = FindExchange(std::string_view(market.exchangeCode));
    if (!exchange) return false;
    if (exchange->WholeExchange) return true;
    return exchange->subscribed.find(std::string_view(instrumentId, strnlen(instrumentId, 31))) !=
           exchange->subscribed.end();
}

// A market status change (16-byte payload).
void CMdEngine::ApplyStatusRecord(const char* payload) {
    const uint16_t id = Rd<uint16_t>(payload);
    const uint32_t tradingDay = Rd<uint32_t>(payload + 2);
    const uint8_t code = Rd<uint8_t>(payload + 6);
    const uint8_t code2 = Rd<uint8_t>(payload + 7);
    const uint32_t secondDay = Rd<uint32_t>(payload + 8);
    const uint32_t timeWord = Rd<uint32_t>(payload + 12);
    CQxMarket* market = FindMarket(id);
    if (!market) return;

    if (market->tradingDay != tradingDay && code != 0) {
        // A new trading day: the market's instruments are listed anew. The
        // two status codes are stored crosswise here.
        market->tradingDay = tradingDay;
        market->secondDay = secondDay;
        market->timeWord = timeWord;
        market->status = code2;
        market->status2 = code;
        market->NameTableComplete = false;
        m_host.ReqMarketNametable(id);
    } else {
        if (secondDay < market->secondDay || (secondDay == market->secondDay && timeWord <= market->timeWord))
            return;
        if (market->tradingDay == tradingDay) {
            market->secondDay = secondDay;
            market->timeWord = timeWord;
            market->status = code;
            market->status2 = code2;
        }
    }
    if (id == m_extraMarket.ids[0])
        PrintField(m_szTradingDay, sizeof(m_szTradingDay), "%d", static_cast<int>(tradingDay));

    // Only the exchange's main market speaks for the exchange.
    COrvexWiraMdSpi* spi = Spi();
    if (!spi) return;
    COrvexWiraMarketStatusField status;
    FillStatusRecord(&status, market->exchangeCode, tradingDay, secondDay, timeWord,
                                StatusChar(code));
    CQxExchange* exchange = FindExchange(std::string_view(market->exchangeCode));
    CQxMarket* main = exchange ? exchange->GetMainMarket() : nullptr;
    if (main && main->marketId == id) spi->OnStatusChange(&status);
}

// A pushed quote row of rowLength bytes (at least its 39-byte head).
void CMdEngine::ApplyPushedRow(const char* row, int rowLength, CQxInstrument* inst, bool lookedUp) {
    const char* code = row + 10;
    const std::string_view codeView(code, CodeLength(code));
    const int codeLen = static_cast<int>(codeView.size());
    CQxMarket* market = FindMarket(Rd<uint16_t>(row + 8));
    if (!market) {
        if (m_settings.log) Log("Can not find Family:%.*s", codeLen, code);
        return;
    }
    if (!Level(market->marketId)) return;
    if (!lookedUp) inst = market->FindInstrument(codeView);
    if (!inst) {
        if (m_settings.log) Log("Can not find Instrument:%.*s", codeLen, code);
        return;
    }

    if (inst->quoteDate == 0) {
        inst->quoteDate = market->secondDay;
        inst->quoteTime = market->timeWord;
    }
    const uint32_t packed = Rd<uint32_t>(row + 35);
    const unsigned h = packed >> 22, mi = (packed >> 16) & 0x3F, s = (packed >> 10) & 0x3F, ms = packed & 0x3FF;
    const uint32_t qt = h * 10000000u + mi * 100000u + s * 1000u + ms;
    const uint32_t dd = inst->quoteDate, dt = inst->quoteTime;
    const uint32_t md = market->secondDay, mt = market->timeWord;
    const CQxMarket::ClockParts& clock = market->Clock();

    // Accepted when it is on a later day, or on the same day and not older.
    uint32_t n = 0;
    bool current;
    if (dd == md && h < 24 && mi < 60 && s < 60 && ms < 1000 && clock.plausible && qt >= mt) {
        // The usual case, the row on the market's own day and not behind its
        // clock: the same answer as the calendar comparison below, without
        // building the two time values.
        const int span = static_cast<int>((h * 3600 + mi * 60 + s) - clock.seconds);
        n = dd;
        current = span <= kStaleSpan - 1;
    } else {
        const CTime64 b = TimeOfDate(md, clock.h, clock.mi, clock.s, clock.ms);
        current = RowDate(dd, b, h, mi, s, ms, &n);
    }
    if (!current || !((dd == n && dt <= qt) || dd < n)) {
        if (m_settings.log) Log("Filter:%.*s,QT:%u,MD:%u,MT:%u,DD:%u,DT:%u", codeLen, code, qt, md, mt, dd, dt);
        return;
    }

    inst->quoteDate = n;
    inst->quoteTime = qt;
    inst->pushedDate = Rd<uint32_t>(row + 31);
    COrvexWiraDepthMarketDataField out;
    const bool applied = m_settings.deltaQuot ? ProcessPushQuotationDelta(row, rowLength, inst, nullptr, &out)
                                          : ProcessPushQuotation(row, rowLength, inst, &out);
    COrvexWiraMdSpi* spi = Spi();
    if (applied && spi && (!m_settings.subscribe || Subscribed(*market, out.InstrumentID))) spi->OnDepthMarketData(&out);
}


void CMdEngine::ProcessTemplatePackage(unsigned short /*leading*/, const char* data, int length) {
    // The payload's leading 16-bit value carries nothing the record needs;
    // the package body follows it, its id first.
    if (!data || length < 2) return;
    COrvexWiraMdSpi* spi = Spi();
    if (!spi) return;
    const CQxDataPackage* tmpl = FindPackageTemplate(Rd<uint16_t>(data));
    if (!tmpl) return;   // a package nobody described
    auto marketText = [](void* context, int value, char* out9) {
        static_cast<CMdEngine*>(context)->MarketText(value, out9);
    };
    if (!BuildPackageRecord(*tmpl, data, length, &m_templateRecord, marketText, this)) return;
    spi->OnTemplateData(tmpl->id, m_templateRecord.data());
}

void CMdEngine::MarketText(int marketId, char* out9) {
    // The exchange code the model gives the market, else the number.
    if (const CQxMarket* market = FindMarket(marketId)) {
        CopyText(out9, 9, market->exchangeCode, sizeof(market->exchangeCode));
        return;
    }
    snprintf(out9, 9, "%d", marketId);
}

int CMdEngine::LookUpPushedRows(const char* body, unsigned int length) {
    int rows = 0;
    unsigned int pos = 0;
    while (pos + kRecordHead <= length && rows < kLookAhead) {
        const char* rec = body + pos;
        const unsigned int payloadLength = Rd<uint16_t>(rec + 5);
        if (payloadLength > length - pos - kRecordHead) break;
        pos += kRecordHead + payloadLength;
        if (Rd<uint8_t>(rec + 4) != kTypePush || payloadLength < kPushHead) continue;
        const char* row = rec + kRecordHead;
        CQxInstrument* inst = nullptr;
        if (CQxMarket* market = FindMarket(Rd<uint16_t>(row + 8))) {
            inst = market->FindInstrument(std::string_view(row + 10, CodeLength(row + 10)));
            if (inst) {
                // The divisor, the dates and the depth record: the lines a
                // row reads and writes.
                const char* line = reinterpret_cast<const char*>(inst);
                for (size_t at = 0; at < offsetof(CQxInstrument, attribute1); at += 64) __builtin_prefetch(line + at, 1);
            }
        }
        m_rowInstruments[rows++] = inst;
    }
    return rows;
}

void CMdEngine::ProcessDynainfo(const char* body, unsigned int length) {
    if (!body) return;
    const int lookedUp = LookUpPushedRows(body, length);
    int row = 0;
    unsigned int pos = 0;
    while (pos + kRecordHead <= length) {
        const char* rec = body + pos;
        const uint8_t type = Rd<uint8_t>(rec + 4);
        const unsigned int payloadLength = Rd<uint16_t>(rec + 5);
        if (payloadLength > length - pos - kRecordHead) return;
        m_nDynainfoSequence = Rd<uint32_t>(rec);
        const char* payload = rec + kRecordHead;
        pos += kRecordHead + payloadLength;

        // Records too short for their fixed part are skipped.
        switch (type) {
            case kTypeStatus:
                if (payloadLength >= kStatusPayload) ApplyStatusRecord(payload);
                break;
            case kTypePush:
                if (payloadLength >= kPushHead) {
                    const bool ahead = row < lookedUp;
                    ApplyPushedRow(payload, static_cast<int>(payloadLength), ahead ? m_rowInstruments[row] : nullptr,
                                   ahead);
                    ++row;
                }
                break;
            case kTypeTemplate:
                if (payloadLength >= 2)
                    ProcessTemplatePackage(Rd<uint16_t>(payload), payload + 2, static_cast<int>(payloadLength - 2));
                break;
            default:
                break;
        }
    }
}
