#include "MarketRecord.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "JournalReplay.h"

namespace qxsim {

namespace {

const char kMagic[] = "qxdc-sim-record 1";

std::string Hex(const std::string& s) {
    static const char digits[] = "0123456789abcdef";
    if (s.empty()) return "-";
    std::string out;
    for (unsigned char c : s) {
        out += digits[c >> 4];
        out += digits[c & 15];
    }
    return out;
}

std::string Unhex(const std::string& s) {
    std::string out;
    if (s == "-") return out;
    for (size_t i = 0; i + 1 < s.size(); i += 2) out += static_cast<char>(std::strtol(s.substr(i, 2).c_str(), nullptr, 16));
    return out;
}

std::string QuoteFields(const QuoteState& q) {
    std::ostringstream o;
    o.precision(17);
    o << q.date << ' ' << q.time << ' ' << q.preClose << ' ' << q.preSettlement << ' ' << q.open << ' ' << q.high
      << ' ' << q.low << ' ' << q.last << ' ' << q.upperLimit << ' ' << q.lowerLimit << ' ' << q.average << ' '
      << q.settlement << ' ' << q.close << ' ' << q.volume << ' ' << q.turnover << ' ' << q.openInterest << ' '
      << q.preOpenInterest;
    for (const BookLevel& l : q.bid) o << ' ' << l.price << ' ' << l.volume;
    for (const BookLevel& l : q.ask) o << ' ' << l.price << ' ' << l.volume;
    return o.str();
}

bool ParseQuote(std::istringstream& in, QuoteState& q) {
    in >> q.date >> q.time >> q.preClose >> q.preSettlement >> q.open >> q.high >> q.low >> q.last >> q.upperLimit >>
        q.lowerLimit >> q.average >> q.settlement >> q.close >> q.volume >> q.turnover >> q.openInterest >>
        q.preOpenInterest;
    for (BookLevel& l : q.bid) in >> l.price >> l.volume;
    for (BookLevel& l : q.ask) in >> l.price >> l.volume;
    return !in.fail();
}

}  // namespace

bool MarketRecorder::Open(const std::string& path, const Market& market, std::string* error) {
    m_out.open(path, std::ios::out | std::ios::trunc);
    if (!m_out) {
        if (error) *error = "cannot create " + path;
        return false;
    }
    m_out << kMagic << "\nclock " << market.Clock() << "\n";
    for (const MarketInfo& m : market.Markets()) {
        m_out << "market " << m.id << ' ' << static_cast<int>(m.exchange) << ' ' << m.tradingDay << ' '
              << static_cast<int>(m.status) << ' ' << m.secondDay << ' ' << m.timeWord << "\n";
    }
    for (const Instrument& i : market.Instruments()) {
        m_out << "instrument " << i.marketId << ' ' << static_cast<int>(i.exchange) << ' ' << i.code << ' '
              << i.divisor << ' ' << i.multiple << ' ' << i.tickRaw << ' ' << i.listDate << ' ' << i.expireDate << ' '
              << i.deliveryStart << ' ' << i.deliveryEnd << ' ' << Hex(i.name) << ' ' << Hex(i.nameUtf8) << "\n";
    }
    for (size_t i = 0; i < market.Instruments().size(); ++i) WriteQuote(market, static_cast<int>(i));
    m_out << "start\n";
    m_out.flush();
    return static_cast<bool>(m_out);
}

void MarketRecorder::WriteQuote(const Market& market, int index) {
    m_out << "quote " << market.Clock() << ' ' << index << ' ' << QuoteFields(market.Instruments()[index].quote)
          << "\n";
    ++m_lines;
}

void MarketRecorder::Write(const Market& market, const std::vector<MarketEvent>& events) {
    if (!m_out.is_open()) return;
    for (const MarketEvent& e : events) {
        if (e.type == MarketEvent::kQuote) {
            WriteQuote(market, e.index);
        } else {
            const MarketInfo& m = market.Markets()[e.index];
            m_out << "status " << market.Clock() << ' ' << e.index << ' ' << m.tradingDay << ' '
                  << static_cast<int>(m.status) << ' ' << m.secondDay << ' ' << m.timeWord << "\n";
            ++m_lines;
        }
    }
}

void MarketRecorder::Close() {
    if (m_out.is_open()) m_out.close();
}

namespace {

// The change lines of a text recording, read as they come due.
class TextSource : public ReplaySource {
public:
    explicit TextSource(std::ifstream in) : m_in(std::move(in)) {}
    bool Next(ReplayChange* c) override {
        std::string line;
        while (std::getline(m_in, line)) {
            std::istringstream in(line);
            std::string kind;
            ReplayChange change;
            in >> kind >> change.ms >> change.index;
            if (in.fail()) continue;
            if (kind == "quote") {
                change.type = ReplayChange::kQuote;
                if (!ParseQuote(in, change.quote)) continue;
            } else if (kind == "status") {
                int status = 0;
                change.type = ReplayChange::kStatus;
                in >> change.tradingDay >> status >> change.secondDay >> change.timeWord;
                if (in.fail()) continue;
                change.status = static_cast<uint8_t>(status);
            } else {
                continue;
            }
            *c = change;
            return true;
        }
        return false;
    }

private:
    std::ifstream m_in;
};

}  // namespace

MarketReplay::MarketReplay() = default;
MarketReplay::~MarketReplay() = default;

bool MarketReplay::Open(const std::string& path, Market* market, int64_t nowMs, std::string* error) {
    int64_t recordStart = 0;
    std::unique_ptr<ReplaySource> source;
    struct stat st;
    if (stat(path.c_str(), &st) != 0) {
        if (error) *error = path + ": " + std::strerror(errno);
        return false;
    }
    if (LooksLikeJournal(path)) {
        JournalReplayInfo info;
        source = OpenJournalReplay(path, market, &recordStart, &info, error);
        if (source) m_summary = info.Summary();
    } else {
        source = OpenText(path, market, &recordStart, error);
    }
    if (!source) return false;
    Start(std::move(source), *market, recordStart, nowMs);
    return true;
}

std::unique_ptr<ReplaySource> MarketReplay::OpenText(const std::string& path, Market* market, int64_t* recordStart,
                                                     std::string* error) {
    std::ifstream in(path);
    std::string line;
    auto fail = [&](const std::string& why) {
        if (error) *error = path + ": " + why;
        return std::unique_ptr<ReplaySource>();
    };
    if (!in) return fail("cannot be read");
    if (!std::getline(in, line) || line != kMagic) return fail("neither a market recording nor a tick journal");
    *recordStart = 0;
    int lineNo = 1;
    while (std::getline(in, line)) {
        ++lineNo;
        std::istringstream fields(line);
        std::string kind;
        fields >> kind;
        if (kind == "start") break;
        if (kind == "clock") {
            fields >> *recordStart;
        } else if (kind == "market") {
            int id = 0, exchange = 0, status = 0;
            uint32_t day = 0, second = 0, time = 0;
            fields >> id >> exchange >> day >> status >> second >> time;
            if (fields.fail() || exchange < 0 || exchange >= kExchangeCount)
                return fail("bad line " + std::to_string(lineNo));
            int index = market->AddMarket(static_cast<uint16_t>(id), static_cast<Exchange>(exchange));
            market->SetStatus(index, day, static_cast<uint8_t>(status), second, time);
        } else if (kind == "instrument") {
            Instrument inst;
            int exchange = 0, multiple = 0;
            std::string name, nameUtf8;
            fields >> inst.marketId >> exchange >> inst.code >> inst.divisor >> multiple >> inst.tickRaw >>
                inst.listDate >> inst.expireDate >> inst.deliveryStart >> inst.deliveryEnd >> name >> nameUtf8;
            if (fields.fail() || exchange < 0 || exchange >= kExchangeCount)
                return fail("bad line " + std::to_string(lineNo));
            inst.exchange = static_cast<Exchange>(exchange);
            inst.multiple = static_cast<uint16_t>(multiple);
            inst.name = Unhex(name);
            inst.nameUtf8 = Unhex(nameUtf8);
            market->AddInstrument(inst);
        } else if (kind == "quote") {
            int64_t ms = 0;
            int index = -1;
            QuoteState q;
            fields >> ms >> index;
            if (fields.fail() || !ParseQuote(fields, q)) return fail("bad line " + std::to_string(lineNo));
            market->SetQuote(index, q);
        } else if (!kind.empty()) {
            return fail("unexpected \"" + kind + "\" in line " + std::to_string(lineNo));
        }
    }
    if (market->Markets().empty()) return fail("no markets");
    m_summary = "recording of " + std::to_string(market->Markets().size()) + " markets, " +
                std::to_string(market->Instruments().size()) + " instruments";
    return std::make_unique<TextSource>(std::move(in));
}

void MarketReplay::Start(std::unique_ptr<ReplaySource> source, Market& market, int64_t recordStartMs, int64_t nowMs) {
    m_source = std::move(source);
    m_recordStart = recordStartMs;
    m_replayStart = nowMs;
    m_finished = false;
    m_applied = 0;
    market.SetClock(recordStartMs);
    ReadNext();
}

void MarketReplay::ReadNext() {
    m_havePending = m_source && m_source->Next(&m_pending);
    if (!m_havePending) m_finished = true;
}

std::vector<MarketEvent> MarketReplay::Step(Market& market, int64_t nowMs) {
    std::vector<MarketEvent> events;
    const int64_t target = m_recordStart + (nowMs - m_replayStart);
    std::vector<int> quoted;   // instruments changed in this batch
    while (m_havePending && m_pending.ms <= target) {
        const ReplayChange& c = m_pending;
        if (c.type == ReplayChange::kQuote) {
            // The sessions read the state when they push the batch: a second
            // change of one instrument waits for the next batch, so that the
            // clients see every recorded state, not the last one twice.
            if (std::find(quoted.begin(), quoted.end(), c.index) != quoted.end()) return events;
            quoted.push_back(c.index);
        }
        market.SetClock(c.ms);
        if (c.type == ReplayChange::kQuote) {
            MarketEvent e = market.SetQuote(c.index, c.quote);
            if (!e.maskA && !e.maskB && c.alwaysPush && c.index >= 0 &&
                c.index < static_cast<int>(market.Instruments().size()))
                e.maskA = kChLast;
            if (e.maskA || e.maskB) events.push_back(e);
        } else {
            events.push_back(market.SetStatus(c.index, c.tradingDay, c.status, c.secondDay, c.timeWord));
        }
        ++m_applied;
        ReadNext();
    }
    if (!m_havePending || target < m_pending.ms) market.SetClock(target);
    return events;
}

bool MarketReplay::Due(int64_t nowMs) const {
    return m_havePending && m_pending.ms <= m_recordStart + (nowMs - m_replayStart);
}

}  // namespace qxsim
