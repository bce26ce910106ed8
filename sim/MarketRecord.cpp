#include "MarketRecord.h"

#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <sstream>

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

bool MarketReplay::Open(const std::string& path, Market* market, int64_t nowMs, std::string* error) {
    m_in.open(path);
    std::string line;
    auto fail = [&](const std::string& why) {
        if (error) *error = path + ": " + why;
        return false;
    };
    if (!m_in || !std::getline(m_in, line) || line != kMagic) return fail("not a market recording");
    int lineNo = 1;
    while (std::getline(m_in, line)) {
        ++lineNo;
        std::istringstream in(line);
        std::string kind;
        in >> kind;
        if (kind == "start") break;
        if (kind == "clock") {
            in >> m_recordStart;
        } else if (kind == "market") {
            int id = 0, exchange = 0, status = 0;
            uint32_t day = 0, second = 0, time = 0;
            in >> id >> exchange >> day >> status >> second >> time;
            if (in.fail() || exchange < 0 || exchange >= kExchangeCount) return fail("bad line " + std::to_string(lineNo));
            int index = market->AddMarket(static_cast<uint16_t>(id), static_cast<Exchange>(exchange));
            market->SetStatus(index, day, static_cast<uint8_t>(status), second, time);
        } else if (kind == "instrument") {
            Instrument inst;
            int exchange = 0, multiple = 0;
            std::string name, nameUtf8;
            in >> inst.marketId >> exchange >> inst.code >> inst.divisor >> multiple >> inst.tickRaw >> inst.listDate >>
                inst.expireDate >> inst.deliveryStart >> inst.deliveryEnd >> name >> nameUtf8;
            if (in.fail() || exchange < 0 || exchange >= kExchangeCount) return fail("bad line " + std::to_string(lineNo));
            inst.exchange = static_cast<Exchange>(exchange);
            inst.multiple = static_cast<uint16_t>(multiple);
            inst.name = Unhex(name);
            inst.nameUtf8 = Unhex(nameUtf8);
            market->AddInstrument(inst);
        } else if (kind == "quote") {
            int64_t ms = 0;
            int index = -1;
            QuoteState q;
            in >> ms >> index;
            if (in.fail() || !ParseQuote(in, q)) return fail("bad line " + std::to_string(lineNo));
            market->SetQuote(index, q);
        } else if (!kind.empty()) {
            return fail("unexpected \"" + kind + "\" in line " + std::to_string(lineNo));
        }
    }
    if (market->Markets().empty()) return fail("no markets");
    market->SetClock(m_recordStart);
    m_replayStart = nowMs;
    ReadNext();
    return true;
}

bool MarketReplay::ReadNext() {
    m_havePending = false;
    std::string line;
    while (std::getline(m_in, line)) {
        std::istringstream in(line);
        std::string kind;
        in >> kind >> m_pendingMs;
        if (in.fail()) continue;
        m_pending = line;
        m_havePending = true;
        return true;
    }
    m_finished = true;
    return false;
}

std::vector<MarketEvent> MarketReplay::Step(Market& market, int64_t nowMs) {
    std::vector<MarketEvent> events;
    const int64_t target = m_recordStart + (nowMs - m_replayStart);
    while (m_havePending && m_pendingMs <= target) {
        std::istringstream in(m_pending);
        std::string kind;
        int64_t ms = 0;
        int index = -1;
        in >> kind >> ms >> index;
        market.SetClock(ms);
        if (kind == "quote") {
            QuoteState q;
            if (ParseQuote(in, q)) {
                MarketEvent e = market.SetQuote(index, q);
                if (e.maskA || e.maskB) events.push_back(e);
            }
        } else if (kind == "status") {
            uint32_t day = 0, second = 0, time = 0;
            int status = 0;
            in >> day >> status >> second >> time;
            if (!in.fail()) events.push_back(market.SetStatus(index, day, static_cast<uint8_t>(status), second, time));
        }
        ++m_applied;
        ReadNext();
    }
    if (!m_havePending || target < m_pendingMs) market.SetClock(target);
    return events;
}

}  // namespace qxsim
