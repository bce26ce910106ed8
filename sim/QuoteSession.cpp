#include "QuoteSession.h"

#include <algorithm>
#include <cstring>

#include "protocol/DcFrames.h"
#include "protocol/PackageBodies.h"
#include "protocol/QuoteBodies.h"

namespace qxsim {

namespace {

using namespace orvex_test;

constexpr size_t kMaxBody = 4092;

uint32_t PackedTimeOf(uint32_t hhmmssmmm) {
    return PackQuoteTime(hhmmssmmm / 10000000u, hhmmssmmm / 100000u % 100u, hhmmssmmm / 1000u % 100u,
                         hhmmssmmm % 1000u);
}

std::string TextAt(const std::string& body, size_t offset, size_t width) {
    if (offset >= body.size()) return std::string();
    const size_t n = std::min(width, body.size() - offset);
    const char* p = body.data() + offset;
    return std::string(p, strnlen(p, n));
}

uint16_t U16At(const std::string& body, size_t offset) {
    uint16_t v = 0;
    if (offset + 2 <= body.size()) std::memcpy(&v, body.data() + offset, 2);
    return v;
}

QuoteRow RowOf(const Instrument& inst) {
    const QuoteState& q = inst.quote;
    QuoteRow r;
    r.market = inst.marketId;
    r.code = inst.code;
    r.date = q.date;
    r.packedTime = PackedTimeOf(q.time);
    r.preClose = q.preClose;
    r.preSettlement = q.preSettlement;
    r.open = q.open;
    r.high = q.high;
    r.low = q.low;
    r.last = q.last;
    r.upperLimit = q.upperLimit;
    r.lowerLimit = q.lowerLimit;
    r.average = q.average;
    r.settlement = q.settlement;
    r.close = q.close;
    r.volume = q.volume;
    r.openInterest = q.openInterest;
    r.preOpenInterest = q.preOpenInterest;
    r.turnover = q.turnover;
    for (int k = 0; k < 5; ++k) {
        r.bid[k] = {q.bid[k].price, q.bid[k].volume};
        r.ask[k] = {q.ask[k].price, q.ask[k].volume};
    }
    return r;
}

MarketStatusRow StatusRowOf(const MarketInfo& m) {
    MarketStatusRow r;
    r.market = m.id;
    r.tradingDay = m.tradingDay;
    r.status = m.status;
    r.status2 = m.status;
    r.secondDay = m.secondDay;
    r.timeWord = m.timeWord;
    return r;
}

}  // namespace

QuoteSession::QuoteSession(const Market& market, const QuoteOptions& options, LogFn log)
    : m_market(market), m_options(options), m_log(std::move(log)) {
    m_options.statusRows = std::max(1, std::min(m_options.statusRows, 255));
    m_options.nameRows = std::max(1, std::min(m_options.nameRows, 48));
    m_options.quoteRows = std::max(1, std::min(m_options.quoteRows, 15));
    m_needFull.assign(m_market.Instruments().size(), true);
}

void QuoteSession::Log(const std::string& text) const {
    if (m_log) m_log(text);
}

std::string QuoteSession::TakeOutput() {
    std::string out;
    out.swap(m_out);
    return out;
}

void QuoteSession::OnReceive(const char* data, size_t length) {
    if (m_close) return;
    m_in.append(data, length);
    while (m_in.size() >= 4) {
        uint16_t bodyLength;
        std::memcpy(&bodyLength, m_in.data() + 2, 2);
        if (m_in[0] != '@' || bodyLength > kMaxBody) {
            Log("bad frame header from the client; closing");
            m_close = true;
            return;
        }
        if (m_in.size() < 4u + bodyLength) break;
        std::string one = m_in.substr(0, 4u + bodyLength);
        m_in.erase(0, 4u + bodyLength);
        for (const DcFrame& f : CutDcFrames(one)) OnFrame(f.command, f.body);
    }
}

void QuoteSession::OnFrame(int command, const std::string& body) {
    switch (command) {
        case 0:
            ++m_stats.heartbeats;
            return;
        case 83:
            OnLogin(body);
            return;
        default:
            break;
    }
    if (!m_loggedIn) {
        Log("request " + std::to_string(command) + " before a successful login: ignored");
        return;
    }
    ++m_stats.requests;
    switch (command) {
        case 1: AnswerNameTables(U16At(body, 2)); break;
        case 2: AnswerMarketStatus(U16At(body, 2)); break;
        case 3: AnswerQuotation(U16At(body, 2)); break;
        case 100: {
            int32_t selector = -1;
            if (body.size() >= 4) std::memcpy(&selector, body.data(), 4);
            m_subscribed = true;
            // Whatever changed before now may have been missed.
            std::fill(m_needFull.begin(), m_needFull.end(), true);
            Log("dynamic information subscribed (selector " + std::to_string(selector) + ")");
            break;
        }
        default:
            Log("unknown request " + std::to_string(command) + " ignored");
            break;
    }
}

void QuoteSession::OnLogin(const std::string& body) {
    const uint16_t handle = U16At(body, 0);
    m_user = TextAt(body, 2, 32);
    const std::string password = TextAt(body, 34, 32);
    ++m_stats.logins;

    uint16_t code = 0;
    std::string message;
    if (m_options.rejectCode != 0) {
        code = static_cast<uint16_t>(m_options.rejectCode);
        message = Utf8ToGbk("登录被拒绝");
    } else if ((!m_options.user.empty() && m_user != m_options.user) ||
               (!m_options.password.empty() && password != m_options.password)) {
        code = 9;
        message = Utf8ToGbk("用户名或密码错误");
    }
    m_loggedIn = code == 0;
    Log("login of \"" + m_user + "\": " + (code == 0 ? std::string("accepted") : "refused with code " + std::to_string(code)));

    std::vector<uint16_t> ids;
    for (const MarketInfo& m : m_market.Markets()) ids.push_back(m.id);
    if (m_options.loginForm == 1) {
        Send(82, LoginAnswerBody(handle, code, code == 0 ? ids : std::vector<uint16_t>(), message));
        return;
    }
    // The access list names every market the user may receive.
    std::vector<AccessEntry> access;
    for (uint16_t id : ids) access.push_back({id, -1});
    Send(83, LoginAnswer1Body(handle, code, message, code == 0 ? 1u : 0u, code == 0 ? access : std::vector<AccessEntry>()));
}

std::vector<const MarketInfo*> QuoteSession::Select(uint16_t marketId) const {
    std::vector<const MarketInfo*> out;
    for (const MarketInfo& m : m_market.Markets())
        if (marketId == 0 || m.id == marketId) out.push_back(&m);
    return out;
}

void QuoteSession::AnswerMarketStatus(uint16_t marketId) {
    std::vector<MarketStatusRow> rows;
    for (const MarketInfo* m : Select(marketId)) rows.push_back(StatusRowOf(*m));
    const size_t per = static_cast<size_t>(m_options.statusRows);
    size_t first = 0;
    do {
        const size_t n = std::min(per, rows.size() - first);
        std::vector<MarketStatusRow> slice(rows.begin() + first, rows.begin() + first + n);
        Send(2, MarketStatusBody(static_cast<uint16_t>(rows.size()), static_cast<uint16_t>(first), slice));
        first += n;
    } while (first < rows.size());
}

void QuoteSession::AnswerNameTables(uint16_t marketId) {
    const std::vector<Instrument>& all = m_market.Instruments();
    const std::vector<const MarketInfo*> markets = Select(marketId);
    for (const MarketInfo* m : markets) {
        std::vector<NameRow> rows;
        for (int index : m->instruments) {
            const Instrument& inst = all[index];
            NameRow r;
            r.name = inst.name;
            r.marketCode = inst.code;
            r.exchangeCode = inst.exchangeCode.empty() ? inst.code : inst.exchangeCode;
            r.divisor = inst.divisor;
            r.attribute1 = inst.multiple;
            r.attribute2 = static_cast<uint16_t>(inst.tickRaw);
            rows.push_back(r);
        }
        const size_t per = static_cast<size_t>(m_options.nameRows);
        size_t first = 0;
        do {
            const size_t n = std::min(per, rows.size() - first);
            std::vector<NameRow> slice(rows.begin() + first, rows.begin() + first + n);
            Send(1, NameTableBody(m->id, static_cast<uint16_t>(rows.size()), static_cast<uint16_t>(first), slice));
            first += n;
        } while (first < rows.size());
    }
    // A client asks for one market's names on its own when the market has
    // rolled to a new trading day; the new table empties its quotes, so
    // they follow at once in full.
    if (marketId == 0) return;
    for (const MarketInfo* m : markets) {
        for (int index : m->instruments) m_needFull[index] = true;
        if (!m_subscribed) continue;
        for (int index : m->instruments) PushRow(index, 0, 0);
    }
    FlushDyna();
}

void QuoteSession::AnswerQuotation(uint16_t marketId) {
    const std::vector<Instrument>& all = m_market.Instruments();
    std::vector<const MarketInfo*> markets;
    size_t totalRows = 0, packets = 0;
    const size_t per = static_cast<size_t>(m_options.quoteRows);
    for (const MarketInfo* m : Select(marketId)) {
        if (m->instruments.empty()) continue;
        markets.push_back(m);
        totalRows += m->instruments.size();
        packets += (m->instruments.size() + per - 1) / per;
    }
    if (markets.empty()) {
        Send(3, QuotationBody(1, 0, marketId, 0, 0, {}));
        return;
    }
    size_t packet = 0, first = 0;
    for (const MarketInfo* m : markets) {
        for (size_t start = 0; start < m->instruments.size(); start += per) {
            const size_t n = std::min(per, m->instruments.size() - start);
            std::vector<QuoteRow> rows;
            for (size_t i = start; i < start + n; ++i) {
                const int index = m->instruments[i];
                rows.push_back(RowOf(all[index]));
                m_needFull[index] = false;
            }
            Send(3, QuotationBody(static_cast<uint16_t>(packets), static_cast<uint16_t>(packet), m->id,
                                  static_cast<uint16_t>(totalRows), static_cast<uint16_t>(first), rows));
            ++packet;
            first += n;
        }
    }
}

void QuoteSession::OnMarketEvents(const std::vector<MarketEvent>& events) {
    if (!m_subscribed || m_close) return;
    for (const MarketEvent& e : events) {
        if (e.type == MarketEvent::kStatus) {
            if (e.index < 0 || e.index >= static_cast<int>(m_market.Markets().size())) continue;
            AddDyna(DynaStatusRecord(++m_sequence, StatusRowOf(m_market.Markets()[e.index])));
            ++m_stats.statusRecords;
        } else {
            PushRow(e.index, e.maskA, e.maskB);
        }
    }
    if (m_options.indexEvery > 0 && m_rowsSinceIndex >= static_cast<uint64_t>(m_options.indexEvery)) {
        m_rowsSinceIndex = 0;
        PushIndexPackages();
    }
    FlushDyna();
}

void QuoteSession::PushIndexPackages() {
    const std::vector<Instrument>& all = m_market.Instruments();
    for (const MarketInfo& m : m_market.Markets()) {
        if (m.instruments.empty()) continue;
        double ratio = 0;
        int counted = 0;
        uint32_t latest = 0;
        std::vector<std::pair<std::string, int32_t>> top;
        for (int index : m.instruments) {
            const QuoteState& q = all[index].quote;
            if (q.preClose > 0 && q.last > 0) {
                ratio += static_cast<double>(q.last) / static_cast<double>(q.preClose);
                ++counted;
            }
            if (q.time > latest) latest = q.time;
            top.emplace_back(all[index].code, static_cast<int32_t>(q.volume));
        }
        std::stable_sort(top.begin(), top.end(), [](const auto& a, const auto& b) { return a.second > b.second; });
        if (top.size() > 3) top.resize(3);
        const int32_t value = counted > 0 ? static_cast<int32_t>(100000.0 * ratio / counted + 0.5) : 100000;
        AddDyna(DynaTemplateRecord(++m_sequence, 0,
                                   ExchangeIndexBody(m.id, value, static_cast<int32_t>(latest / 1000), counted, top)));
        ++m_stats.templatePackages;
    }
}

void QuoteSession::PushRow(int index, uint32_t maskA, uint32_t maskB) {
    if (index < 0 || index >= static_cast<int>(m_market.Instruments().size())) return;
    if (m_needFull[index]) {
        maskA = kAllMainFields;
        maskB = kAllLevels;
        m_needFull[index] = false;
    }
    if (maskA == 0 && maskB == 0) return;
    const Instrument& inst = m_market.Instruments()[index];
    const QuoteState& q = inst.quote;
    PushedRow row(inst.marketId, inst.code, q.date, PackedTimeOf(q.time));
    const int32_t prices[11] = {q.preClose, q.preSettlement, q.open,    q.high,       q.low,  q.last,
                                q.upperLimit, q.lowerLimit, q.average, q.settlement, q.close};
    for (int bit = 0; bit < 11; ++bit)
        if (maskA & (1u << bit)) row.Price(static_cast<PushField>(bit), prices[bit]);
    if (maskA & kChVolume) row.Volume(q.volume);
    if (maskA & kChOpenInterest) row.OpenInterest(q.openInterest);
    if (maskA & kChPreOpenInterest) row.PreOpenInterest(q.preOpenInterest);
    if (maskA & kChTurnover) row.Turnover(q.turnover);
    for (int k = 0; k < 5; ++k) {
        if (maskB & (1u << k)) row.Bid(k + 1, q.bid[k].price, q.bid[k].volume);
        if (maskB & (1u << (10 + k))) row.Ask(k + 1, q.ask[k].price, q.ask[k].volume);
    }
    AddDyna(DynaPushRecord(++m_sequence, row));
    ++m_stats.pushedRows;
    ++m_rowsSinceIndex;
}

void QuoteSession::AddDyna(const std::string& record) {
    if (m_dyna.size() + record.size() > kMaxBody) FlushDyna();
    m_dyna += record;
}

void QuoteSession::FlushDyna() {
    if (m_dyna.empty()) return;
    Send(101, m_dyna);
    m_dyna.clear();
}

void QuoteSession::Send(int command, const std::string& body) {
    std::string frame;
    if (m_options.compress && body.size() >= 256) {
        frame = BuildDcFrame(command, body, true);
        if (frame.size() >= body.size() + 4) frame.clear();
    }
    if (frame.empty()) frame = BuildDcFrame(command, body, false);
    m_out += frame;
    ++m_stats.framesOut;
}

}  // namespace qxsim
