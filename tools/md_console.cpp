// md-console: a terminal market-data client built on libOrvexMdUserApi.
//
// It is written the way an application uses the library, with nothing but
// the two public headers, and doubles as the reference example of the API:
//
//   1. CreateWiraMdApi(flow directory, ...)       -> the API object
//   2. RegisterSpi(&spi), RegisterFront(...)      -> callbacks and fronts
//   3. Init()                                     -> the library connects
//   4. OnFrontLinked       -> ReqUserLogin        (on the library's thread)
//   5. OnLoginAnswer (ok)  -> SubscribeMarketData, ReqQryInstrument
//   6. OnDepthMarketData, OnStatusChange, OnInstrumentAnswer, OnFrontLost
//   7. Release()                                  -> stops and frees everything
//
// Callbacks run on threads of the library and the records they get live
// only during the call, so the callback object copies what it needs into a
// queue and returns at once; the main thread prints. The library reconnects
// and logs in again by itself after OnFrontLost; the console only reports it.
//
// Examples:
//   md-console --front tcp://127.0.0.1:7000 --user demo --password demo
//   md-console --front tcp://127.0.0.1:7000 --file-front ftp://127.0.0.1:7001
//              --query SHFE --sub cu2501.SHFE --sub CFFEX --write-config --duration 30
//   md-console --front tcp://127.0.0.1:7000 --format json --duration 10 > quotes.jsonl
#include <iconv.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cfloat>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ClientOptions.h"
#include "OrvexWiraMdApi.h"
#include "TemplateFile.h"

namespace {

// ---------------------------------------------------------------------------
// Options
// ---------------------------------------------------------------------------

enum class Format { Table, Json, Csv };

struct Options : ClientOptions {
    Format format = Format::Table;
    double interval = 5;                   // seconds between tables when not on a terminal
    int rows = 0;                          // table rows; 0: fit the terminal (or 20)
    bool check = false;                    // exit 3 unless quotes came and every query was answered
};

void Usage(FILE* out) {
    std::fprintf(out,
        "usage: md-console --front tcp://HOST:PORT [options]\n"
        "\n"
        "%s"
        "  --format F           table (live table, default), json or csv (one line per record)\n"
        "  --interval S         seconds between tables when the output is not a terminal (5)\n"
        "  --rows N             rows of the table (default: fit the terminal)\n"
        "  --check              exit with status 3 unless quotes arrived and every query was answered\n"
        "  --help\n",
        kClientUsage);
}

// Returns 0 when the options are usable, else the exit status.
int ParseOptions(int argc, char** argv, Options& o) {
    for (int i = 1; i < argc; ++i) {
        const int shared = ParseClientOption("md-console", argc, argv, i, o);
        if (shared == 2) return 2;
        if (shared == 1) continue;
        const std::string arg = argv[i];
        auto value = [&](std::string& out) {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "md-console: %s needs a value\n", arg.c_str());
                return false;
            }
            out = argv[++i];
            return true;
        };
        std::string v;
        if (arg == "--help" || arg == "-h") {
            Usage(stdout);
            return -1;
        } else if (arg == "--format") {
            if (!value(v)) return 2;
            if (v == "table") o.format = Format::Table;
            else if (v == "json") o.format = Format::Json;
            else if (v == "csv") o.format = Format::Csv;
            else {
                std::fprintf(stderr, "md-console: unknown format %s\n", v.c_str());
                return 2;
            }
        } else if (arg == "--interval") {
            if (!value(v)) return 2;
            char* end = nullptr;
            const double seconds = std::strtod(v.c_str(), &end);
            if (end == v.c_str() || *end != '\0' || seconds < 0) {
                std::fprintf(stderr, "md-console: bad value for %s: %s\n", arg.c_str(), v.c_str());
                return 2;
            }
            o.interval = seconds;
        } else if (arg == "--rows") {
            if (!value(v)) return 2;
            o.rows = std::atoi(v.c_str());
        } else if (arg == "--check") {
            o.check = true;
        } else {
            std::fprintf(stderr, "md-console: unknown option %s (see --help)\n", arg.c_str());
            return 2;
        }
    }
    if (o.fronts.empty()) {
        std::fprintf(stderr, "md-console: give at least one --front tcp://host:port\n");
        return 2;
    }
    if (o.interval <= 0) o.interval = 5;
    return 0;
}

// ---------------------------------------------------------------------------
// Text helpers
// ---------------------------------------------------------------------------

// Server texts (names, error messages) are GBK; the terminal wants UTF-8.
std::string FromGbk(const char* text, size_t width) {
    const std::string in(text, strnlen(text, width));
    bool ascii = true;
    for (unsigned char c : in) ascii = ascii && c < 0x80;
    if (ascii) return in;
    iconv_t cd = iconv_open("UTF-8", "GBK");
    if (cd == reinterpret_cast<iconv_t>(-1)) return in;
    std::string out(in.size() * 3 + 4, '\0');
    char* src = const_cast<char*>(in.data());
    size_t srcLeft = in.size();
    char* dst = &out[0];
    size_t dstLeft = out.size();
    const size_t rc = iconv(cd, &src, &srcLeft, &dst, &dstLeft);
    iconv_close(cd);
    if (rc == static_cast<size_t>(-1)) return in;
    out.resize(out.size() - dstLeft);
    return out;
}

// An empty price is DBL_MAX; prices print with as few decimals as they need.
std::string Price(double v) {
    if (v == DBL_MAX) return "-";
    char text[64];
    std::snprintf(text, sizeof(text), "%.4f", v);
    std::string s = text;
    while (!s.empty() && s.back() == '0') s.pop_back();
    if (!s.empty() && s.back() == '.') s.pop_back();
    return s;
}

std::string Count(double v) {
    if (v == DBL_MAX) return "-";
    char text[64];
    std::snprintf(text, sizeof(text), "%.0f", v);
    return text;
}

std::string JsonNumber(double v) { return v == DBL_MAX ? "null" : Price(v); }

std::string JsonString(const std::string& s) {
    std::string out = "\"";
    for (char c : s) {
        if (c == '"' || c == '\\') out += '\\';
        if (static_cast<unsigned char>(c) < 0x20) continue;
        out += c;
    }
    return out + "\"";
}

const char* ReasonText(int reason) {
    switch (reason) {
        case 0: return "closed by the server (or the daily reconnect)";
        case 4096: return "no socket could be created";
        case 4097: return "receive error";
        case 4098: return "send error";
        case 4099: return "no front reachable";
        case 8195: return "malformed data from the server";
        case 8196: return "login refused";
        case 8197: return "login refused (code 9)";
        case 8198: return "login refused (code 8)";
        case 65535: return "internal error";
        default: return "unknown reason";
    }
}

const char* StatusText(char status) {
    switch (status) {
        case '0': return "before trading";
        case '2': return "trading";
        case '4': return "auction";
        case '6': return "closed";
        case '*': return "logged in";
        default: return "unknown";
    }
}

std::string Clock() {
    using namespace std::chrono;
    const auto now = system_clock::now();
    const time_t t = system_clock::to_time_t(now);
    struct tm local;
    localtime_r(&t, &local);
    char text[16];
    std::snprintf(text, sizeof(text), "%02d:%02d:%02d", local.tm_hour, local.tm_min, local.tm_sec);
    return text;
}


// ---------------------------------------------------------------------------
// Template packages
// ---------------------------------------------------------------------------

// Template values for the screen: prices with as few decimals as they need,
// missing values as null.
const TemplateJson& ScreenStyle() {
    static const TemplateJson style = [] {
        TemplateJson s;
        s.text = [](const char* p, size_t width) { return JsonString(FromGbk(p, width)); };
        s.price = [](double v) { return Price(v); };
        s.nulls = true;
        return s;
    }();
    return style;
}

std::string TemplateFields(const TemplateLayout& t, const char* record) {
    return TemplateJsonMembers(t, record, ScreenStyle());
}

// ---------------------------------------------------------------------------
// The callback object
// ---------------------------------------------------------------------------

// What the callbacks hand over to the main thread.
struct Event {
    enum Kind { Linked, Lost, Login, Status, Depth, Instrument, InstrumentError, Template };
    explicit Event(Kind k) : kind(k) {
        std::memset(&depth, 0, sizeof(depth));
        std::memset(&instrument, 0, sizeof(instrument));
        std::memset(&status, 0, sizeof(status));
    }
    Kind kind;
    int code = 0;                          // reason, error id or request id
    bool last = false;
    std::string text;
    COrvexWiraDepthMarketDataField depth;
    COrvexWiraInstrumentField instrument;
    COrvexWiraMarketStatusField status;
};

class ConsoleSpi : public COrvexWiraMdSpi {
public:
    ConsoleSpi(COrvexWiraMdApi* api, const Options& options, const TemplateFile& templates)
        : m_api(api), m_options(options), m_templates(templates) {}

    // A TCP connection to a quote front is up: log in. The library sends the
    // login itself; the answer comes as OnLoginAnswer.
    void OnFrontLinked() override {
        Push(Event(Event::Linked));
        SendLogin(m_api, m_options, NextRequestId());
    }

    // The connection is gone; the library reconnects by itself (every 10 s)
    // and calls OnFrontLinked again.
    void OnFrontLost(int reason) override {
        Event e(Event::Lost);
        e.code = reason;
        Push(e);
    }

    // Login answered. On success the markets are known: subscribe and query
    // now (subscriptions made before the login would find no exchange). After
    // a reconnect the login is answered again and subscribing again is
    // harmless.
    void OnLoginAnswer(COrvexWiraRspUserLoginField* rsp, COrvexWiraRspInfoField* info, int, bool) override {
        Event e(Event::Login);
        e.code = info ? info->ErrorID : 0;
        if (info) e.text = FromGbk(info->ErrorMsg, sizeof(info->ErrorMsg));
        if (rsp && rsp->TradingDay[0]) e.text += (e.text.empty() ? "" : ", ") + std::string("trading day ") + rsp->TradingDay;
        Push(e);
        if (e.code != 0) return;

        SendSubscriptions(m_api, m_options);
        if (m_queried.exchange(true)) return;   // query once per run
        const int first = m_requestId.fetch_add(static_cast<int>(m_options.queries.size())) + 1;
        SendQueries(m_api, m_options, first);
    }

    // One instrument per call; pInstrument is null on an error answer.
    void OnInstrumentAnswer(COrvexWiraInstrumentField* inst, COrvexWiraRspInfoField* info, int requestId,
                            bool isLast) override {
        Event e(inst ? Event::Instrument : Event::InstrumentError);
        e.code = requestId;
        e.last = isLast;
        if (inst) e.instrument = *inst;
        if (!inst && info)
            e.text = std::to_string(info->ErrorID) + " " + FromGbk(info->ErrorMsg, sizeof(info->ErrorMsg));
        Push(e);
    }

    void OnDepthMarketData(COrvexWiraDepthMarketDataField* depth) override {
        if (!depth) return;
        Event e(Event::Depth);
        e.depth = *depth;   // the record lives only during this call
        Push(e);
    }

    void OnStatusChange(COrvexWiraMarketStatusField* status) override {
        if (!status) return;
        Event e(Event::Status);
        e.status = *status;
        Push(e);
    }

    // A template package as the record its template lays out; kept as many
    // bytes as the template file says it has (nothing when this console has
    // no layout for it).
    void OnTemplateData(unsigned short packageId, void* data) override {
        const TemplateLayout* t = m_templates.Find(packageId);
        if (!t || !data) return;
        Event e(Event::Template);
        e.code = packageId;
        e.text.assign(static_cast<const char*>(data), static_cast<size_t>(t->size));
        Push(e);
    }

    // The main thread takes everything that arrived since its last call.
    std::deque<Event> Take() {
        std::deque<Event> out;
        std::lock_guard<std::mutex> lock(m_lock);
        out.swap(m_events);
        return out;
    }

private:
    void Push(Event e) {
        std::lock_guard<std::mutex> lock(m_lock);
        m_events.push_back(std::move(e));
    }
    int NextRequestId() { return ++m_requestId; }

    COrvexWiraMdApi* m_api;
    const Options& m_options;
    const TemplateFile& m_templates;
    std::mutex m_lock;
    std::deque<Event> m_events;
    std::atomic<int> m_requestId{0};
    std::atomic<bool> m_queried{false};
};

// ---------------------------------------------------------------------------
// Output
// ---------------------------------------------------------------------------

struct QueryAnswer {
    std::string exchange;
    std::vector<COrvexWiraInstrumentField> instruments;
    bool complete = false;
    std::string error;
};

class Console {
public:
    Console(const Options& o, FILE* out, const TemplateFile& templates)
        : m_options(o), m_out(out), m_tty(isatty(fileno(out)) != 0), m_templates(templates) {
        if (o.format == Format::Csv)
            std::fprintf(m_out, "instrument,exchange,trading_day,update_time,last,bid1,bid_volume1,ask1,ask_volume1,"
                        "volume,turnover,open_interest,upper_limit,lower_limit\n");
    }

    void Handle(const Event& e, bool releasing) {
        switch (e.kind) {
            case Event::Linked:
                Note("front linked, logging in as " + m_options.user, "linked", "");
                break;
            case Event::Lost:
                if (!releasing) ++m_lost;
                if (releasing) Note("connection closed by Release()", "lost", "\"reason\":" + std::to_string(e.code));
                else
                    Note("front lost: " + std::to_string(e.code) + " " + ReasonText(e.code) + "; the library reconnects",
                         "lost", "\"reason\":" + std::to_string(e.code) + ",\"text\":" + JsonString(ReasonText(e.code)));
                break;
            case Event::Login:
                if (e.code == 0) ++m_logins;
                Note("login " + std::string(e.code == 0 ? "ok" : "refused: " + std::to_string(e.code)) +
                         (e.text.empty() ? "" : " (" + e.text + ")"),
                     "login", "\"error\":" + std::to_string(e.code) + ",\"text\":" + JsonString(e.text));
                break;
            case Event::Status: {
                const COrvexWiraMarketStatusField& s = e.status;
                m_status[s.ExchangeID] = std::string(StatusText(s.MarketStatus)) + " " + s.UpdateTime;
                ++m_statusChanges;
                Note(std::string("status ") + s.ExchangeID + ": " + StatusText(s.MarketStatus) + " at " + s.UpdateTime +
                         ", trading day " + s.TradingDay,
                     "status", "\"exchange\":" + JsonString(s.ExchangeID) + ",\"status\":" +
                                   JsonString(std::string(1, s.MarketStatus)) + ",\"trading_day\":" +
                                   JsonString(s.TradingDay) + ",\"time\":" + JsonString(s.UpdateTime));
                break;
            }
            case Event::Depth:
                Depth(e.depth);
                break;
            case Event::Instrument:
            case Event::InstrumentError:
                Instrument(e);
                break;
            case Event::Template:
                Template(e);
                break;
        }
    }

    // Redraws (terminal) or prints (pipe, every --interval) the table.
    void Tick(bool force) {
        if (m_options.format != Format::Table) return;
        const auto now = std::chrono::steady_clock::now();
        const double since = std::chrono::duration<double>(now - m_lastTable).count();
        if (!force && since < (m_tty ? 0.25 : m_options.interval)) return;
        m_lastTable = now;
        if (m_tty) Redraw();
        else PrintTable();
    }

    void Summary() {
        size_t answered = 0, instruments = 0;
        for (const auto& kv : m_queries) {
            answered += kv.second.complete ? 1 : 0;
            instruments += kv.second.instruments.size();
        }
        std::fprintf(m_options.format == Format::Table ? m_out : stderr,
                     "md-console: %llu depth records for %zu instruments, %d status reports, %llu template "
                     "records, %zu of %zu queries answered (%zu instruments), %d disconnects\n",
                     static_cast<unsigned long long>(m_depthCount), m_rows.size(), m_statusChanges,
                     static_cast<unsigned long long>(m_templateCount), answered, m_options.queries.size(), instruments,
                     m_lost);
    }

    bool Satisfied() const {
        size_t answered = 0;
        for (const auto& kv : m_queries) answered += kv.second.complete && kv.second.error.empty() ? 1 : 0;
        return m_depthCount > 0 && answered >= m_options.queries.size();
    }

private:
    struct Row {
        COrvexWiraDepthMarketDataField d;
        uint64_t updates = 0;
    };

    // A line about the connection: printed at once, or kept for the
    // terminal's event area.
    void Note(const std::string& text, const char* type, const std::string& jsonFields) {
        const std::string line = Clock() + " " + text;
        if (m_options.format == Format::Json) {
            std::fprintf(m_out, "{\"type\":\"%s\"%s%s}\n", type, jsonFields.empty() ? "" : ",", jsonFields.c_str());
        } else if (m_options.format == Format::Csv) {
            std::fprintf(stderr, "%s\n", line.c_str());
        } else if (m_tty) {
            m_notes.push_back(line);
            while (m_notes.size() > 8) m_notes.pop_front();
        } else {
            std::fprintf(m_out, "%s\n", line.c_str());
        }
    }

    void Depth(const COrvexWiraDepthMarketDataField& d) {
        ++m_depthCount;
        const std::string key = std::string(d.ExchangeID) + "." + d.InstrumentID;
        Row& row = m_rows[key];
        if (row.updates == 0 || !m_options.delta) {
            row.d = d;
        } else {
            Merge(row.d, d);
        }
        ++row.updates;
        if (m_options.format == Format::Json) {
            std::fprintf(m_out, "{\"type\":\"depth\",\"instrument\":%s,\"exchange\":%s,\"trading_day\":%s,\"time\":\"%s.%03d\","
                        "\"last\":%s,\"bid\":[%s,%d],\"ask\":[%s,%d],\"volume\":%s,\"turnover\":%s,"
                        "\"open_interest\":%s,\"upper_limit\":%s,\"lower_limit\":%s}\n",
                        JsonString(d.InstrumentID).c_str(), JsonString(d.ExchangeID).c_str(),
                        JsonString(d.TradingDay).c_str(), d.UpdateTime, d.UpdateMillisec,
                        JsonNumber(d.LastPrice).c_str(), JsonNumber(d.BidPrice1).c_str(), d.BidVolume1,
                        JsonNumber(d.AskPrice1).c_str(), d.AskVolume1, JsonNumber(d.Volume).c_str(),
                        JsonNumber(d.Turnover).c_str(), JsonNumber(d.OpenInterest).c_str(),
                        JsonNumber(d.UpperLimitPrice).c_str(), JsonNumber(d.LowerLimitPrice).c_str());
        } else if (m_options.format == Format::Csv) {
            std::fprintf(m_out, "%s,%s,%s,%s.%03d,%s,%s,%d,%s,%d,%s,%s,%s,%s,%s\n", d.InstrumentID, d.ExchangeID, d.TradingDay,
                        d.UpdateTime, d.UpdateMillisec, Price(d.LastPrice).c_str(), Price(d.BidPrice1).c_str(),
                        d.BidVolume1, Price(d.AskPrice1).c_str(), d.AskVolume1, Count(d.Volume).c_str(),
                        Count(d.Turnover).c_str(), Count(d.OpenInterest).c_str(), Price(d.UpperLimitPrice).c_str(),
                        Price(d.LowerLimitPrice).c_str());
        }
    }

    // With DeltaQuot=1 a pushed record marks unchanged doubles with DBL_MAX
    // and unchanged volumes with 0x7FFFFFFF.
    static void Merge(COrvexWiraDepthMarketDataField& into, const COrvexWiraDepthMarketDataField& d) {
        auto take = [](double& to, double from) {
            if (from != DBL_MAX) to = from;
        };
        auto takeVolume = [](int& to, int from) {
            if (from != 0x7FFFFFFF) to = from;
        };
        take(into.LastPrice, d.LastPrice);
        take(into.Volume, d.Volume);
        take(into.Turnover, d.Turnover);
        take(into.OpenInterest, d.OpenInterest);
        take(into.UpperLimitPrice, d.UpperLimitPrice);
        take(into.LowerLimitPrice, d.LowerLimitPrice);
        take(into.BidPrice1, d.BidPrice1);
        take(into.AskPrice1, d.AskPrice1);
        takeVolume(into.BidVolume1, d.BidVolume1);
        takeVolume(into.AskVolume1, d.AskVolume1);
        std::memcpy(into.UpdateTime, d.UpdateTime, sizeof(into.UpdateTime));
        into.UpdateMillisec = d.UpdateMillisec;
    }

    void Instrument(const Event& e) {
        QueryAnswer& q = m_queries[e.code];
        if (e.kind == Event::InstrumentError && !e.last) {
            // Not the end of the answer: a file-service problem (a contract
            // file that could not be read); the instruments still follow.
            Note("query #" + std::to_string(e.code) + " warning: " + e.text, "query_warning",
                 "\"request\":" + std::to_string(e.code) + ",\"text\":" + JsonString(e.text));
            return;
        }
        if (e.kind == Event::InstrumentError) {
            q.error = e.text;
        } else {
            q.instruments.push_back(e.instrument);
            if (m_options.format == Format::Json) {
                const COrvexWiraInstrumentField& i = e.instrument;
                std::fprintf(m_out, "{\"type\":\"instrument\",\"request\":%d,\"instrument\":%s,\"exchange\":%s,\"name\":%s,"
                            "\"exchange_inst\":%s,\"volume_multiple\":%d,\"number13\":%s,\"text4\":%s,\"text5\":%s,"
                            "\"text2017\":%s,\"text2018\":%s,\"last\":%s}\n",
                            e.code, JsonString(i.InstrumentID).c_str(), JsonString(i.ExchangeID).c_str(),
                            JsonString(FromGbk(i.InstrumentName, sizeof(i.InstrumentName))).c_str(),
                            JsonString(i.ExchangeInstID).c_str(), i.VolumeMultiple, Price(i.Number13).c_str(),
                            JsonString(i.Text4).c_str(), JsonString(i.Text5).c_str(), JsonString(i.Text2017).c_str(),
                            JsonString(i.Text2018).c_str(), e.last ? "true" : "false");
            }
        }
        if (!e.last) return;
        q.complete = true;
        if (!q.error.empty()) {
            Note("query #" + std::to_string(e.code) + " failed: " + q.error, "query_error",
                 "\"request\":" + std::to_string(e.code) + ",\"text\":" + JsonString(q.error));
            return;
        }
        std::map<std::string, int> perExchange;
        for (const COrvexWiraInstrumentField& i : q.instruments) ++perExchange[i.ExchangeID];
        std::string counts;
        for (const auto& kv : perExchange) counts += (counts.empty() ? "" : ", ") + kv.first + " " + std::to_string(kv.second);
        Note("query #" + std::to_string(e.code) + " answered: " + std::to_string(q.instruments.size()) +
                 " instruments (" + counts + ")",
             "query_end", "\"request\":" + std::to_string(e.code) + ",\"count\":" + std::to_string(q.instruments.size()));
        if (m_options.format != Format::Table) return;
        // A few lines of the answer, with the contract fields when a file
        // front supplied them (Number13: price tick, Text4/Text5: listing and
        // last trading day).
        const size_t shown = std::min<size_t>(q.instruments.size(), m_tty ? 3 : 8);
        for (size_t k = 0; k < shown; ++k) {
            const COrvexWiraInstrumentField& i = q.instruments[k];
            char line[256];
            std::snprintf(line, sizeof(line), "  %-10s %-6s %-14s x%-6d tick %-8s listed %-8s expires %s", i.InstrumentID,
                          i.ExchangeID, FromGbk(i.InstrumentName, sizeof(i.InstrumentName)).c_str(), i.VolumeMultiple,
                          i.Number13 != 0 ? Price(i.Number13).c_str() : "-", i.Text4[0] ? i.Text4 : "-",
                          i.Text5[0] ? i.Text5 : "-");
            Note(line, "", "");
        }
        if (q.instruments.size() > shown) Note("  ... " + std::to_string(q.instruments.size() - shown) + " more", "", "");
    }

    // JSON: one line per record. Table: the latest record of each package
    // and first field (an index per market, say), one line each.
    void Template(const Event& e) {
        const TemplateLayout* t = m_templates.Find(e.code);
        if (!t) return;
        ++m_templateCount;
        const std::string fields = TemplateFields(*t, e.text.data());
        if (m_options.format == Format::Json) {
            std::fprintf(m_out, "{\"type\":\"template\",\"package\":%d,\"name\":%s%s%s}\n", e.code,
                         JsonString(t->name).c_str(), fields.empty() ? "" : ",", fields.c_str());
            return;
        }
        std::string key = std::to_string(e.code);
        if (!t->items.empty() && !t->items[0].array)
            key += " " + TemplateValue(t->items[0].field, e.text.data() + t->items[0].field.offset, ScreenStyle());
        m_templateLines[key] = std::to_string(e.code) + " " + t->name + " " + fields;
    }

    std::vector<const Row*> Selected(size_t limit) const {
        std::vector<const Row*> rows;
        for (const auto& kv : m_rows) rows.push_back(&kv.second);
        // The busiest instruments, then in code order.
        std::stable_sort(rows.begin(), rows.end(), [](const Row* a, const Row* b) { return a->updates > b->updates; });
        if (rows.size() > limit) rows.resize(limit);
        std::sort(rows.begin(), rows.end(), [](const Row* a, const Row* b) {
            const int e = std::strcmp(a->d.ExchangeID, b->d.ExchangeID);
            return e != 0 ? e < 0 : std::strcmp(a->d.InstrumentID, b->d.InstrumentID) < 0;
        });
        return rows;
    }

    std::string Header() const {
        char line[160];
        std::snprintf(line, sizeof(line), "%-12s %-6s %11s %8s %11s %11s %8s %10s %10s  %s", "INSTRUMENT", "EXCH",
                      "LAST", "BIDVOL", "BID", "ASK", "ASKVOL", "VOLUME", "OPEN INT", "TIME");
        return line;
    }

    static std::string Line(const Row& r) {
        const COrvexWiraDepthMarketDataField& d = r.d;
        char line[200];
        std::snprintf(line, sizeof(line), "%-12s %-6s %11s %8d %11s %11s %8d %10s %10s  %s.%03d", d.InstrumentID,
                      d.ExchangeID, Price(d.LastPrice).c_str(), d.BidVolume1, Price(d.BidPrice1).c_str(),
                      Price(d.AskPrice1).c_str(), d.AskVolume1, Count(d.Volume).c_str(), Count(d.OpenInterest).c_str(),
                      d.UpdateTime, d.UpdateMillisec);
        return line;
    }

    std::string StatusLine() const {
        std::string s;
        for (const auto& kv : m_status) s += (s.empty() ? "" : " | ") + kv.first + " " + kv.second;
        return s.empty() ? "no market status yet" : s;
    }

    void Redraw() {
        winsize ws;
        int height = 40;
        if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_row > 0) height = ws.ws_row;
        const size_t limit = m_options.rows > 0 ? static_cast<size_t>(m_options.rows)
                                                : static_cast<size_t>(std::max(5, height - 6 - static_cast<int>(m_notes.size())));
        std::string screen = "\x1b[H\x1b[2J";
        screen += "md-console  " + m_options.fronts.front() + "  " + Clock() + "  depth records " +
                  std::to_string(m_depthCount) + "  instruments " + std::to_string(m_rows.size()) + "\n";
        screen += StatusLine() + "\n\n" + Header() + "\n";
        for (const Row* r : Selected(limit)) screen += Line(*r) + "\n";
        for (const auto& kv : m_templateLines) screen += kv.second.substr(0, 160) + "\n";
        screen += "\n";
        for (const std::string& n : m_notes) screen += n + "\n";
        std::fputs(screen.c_str(), m_out);
        std::fflush(m_out);
    }

    void PrintTable() {
        const size_t limit = m_options.rows > 0 ? static_cast<size_t>(m_options.rows) : 12;
        std::fprintf(m_out, "--- %s  depth records %llu  instruments %zu  %s\n", Clock().c_str(),
                    static_cast<unsigned long long>(m_depthCount), m_rows.size(), StatusLine().c_str());
        if (m_rows.empty()) return;
        std::fprintf(m_out, "%s\n", Header().c_str());
        for (const Row* r : Selected(limit)) std::fprintf(m_out, "%s\n", Line(*r).c_str());
        for (const auto& kv : m_templateLines) std::fprintf(m_out, "%s\n", kv.second.c_str());
        std::fflush(m_out);
    }

    const Options& m_options;
    FILE* m_out;
    const bool m_tty;
    std::map<std::string, Row> m_rows;
    std::map<std::string, std::string> m_status;
    std::map<int, QueryAnswer> m_queries;
    std::deque<std::string> m_notes;
    const TemplateFile& m_templates;
    std::map<std::string, std::string> m_templateLines;
    uint64_t m_templateCount = 0;
    uint64_t m_depthCount = 0;
    int m_statusChanges = 0;
    int m_logins = 0;
    int m_lost = 0;
    std::chrono::steady_clock::time_point m_lastTable = std::chrono::steady_clock::now();
};

std::atomic<bool> g_interrupted{false};

void OnSignal(int) { g_interrupted.store(true); }

}  // namespace

int main(int argc, char** argv) {
    Options options;
    const int rc = ParseOptions(argc, argv, options);
    if (rc != 0) return rc < 0 ? 0 : rc;

    // Configuration files are read from the working directory, so they are
    // written before the API object exists.
    if (!PrepareWorkingDirectory(options, "md-console")) return 1;
    if (!options.subscriptions.empty() && !SubscribeModeConfigured())
        std::fprintf(stderr,
                     "md-console: note: without [CONFIG] Subscribe=1 in ./OrvexWiraMdApi.def every quote is "
                     "delivered and --sub changes nothing (use --write-config)\n");

    // The library prints a few diagnostics of its own on standard output
    // ("can't Load ./qxdctrans.xml" when there is no template file). Lines
    // meant for other programs go to a copy of standard output, and the
    // descriptor itself is pointed at standard error.
    FILE* out = stdout;
    if (options.format != Format::Table) {
        const int data = dup(STDOUT_FILENO);
        if (data >= 0 && dup2(STDERR_FILENO, STDOUT_FILENO) >= 0) out = fdopen(data, "w");
        if (!out) out = stdout;
    }

    CatchStopSignals(OnSignal);

    // The layouts of template records, from the file the library reads too.
    TemplateFile templates;
    templates.Load("./qxdctrans.xml");

    // 1. The API object. The last flag delivers snapshot quotes (and the
    //    current quote of a new subscription) through OnDepthMarketData too.
    COrvexWiraMdApi* api = CreateWiraMdApi(options.flow.c_str(), false, false, true);
    if (!api) {
        std::fprintf(stderr, "md-console: CreateWiraMdApi failed\n");
        return 1;
    }

    // 2. Callbacks and fronts; fronts are taken only before Init.
    ConsoleSpi spi(api, options, templates);
    api->RegisterSpi(&spi);
    for (std::string& front : options.fronts) api->RegisterFront(&front[0]);
    for (std::string& front : options.fileFronts) api->RegisterFront(&front[0]);

    // 3. Start: the library connects and calls OnFrontLinked.
    api->Init();

    Console console(options, out, templates);
    const auto start = std::chrono::steady_clock::now();
    while (!g_interrupted.load()) {
        for (const Event& e : spi.Take()) console.Handle(e, false);
        console.Tick(false);
        const double elapsed = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        if (options.duration > 0 && elapsed >= options.duration) break;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }

    // 7. Release stops the library's threads and deletes the object; it may
    //    still call OnFrontLost while closing, so the callback object must
    //    outlive it.
    for (const Event& e : spi.Take()) console.Handle(e, false);
    api->Release();
    for (const Event& e : spi.Take()) console.Handle(e, true);
    console.Tick(true);
    console.Summary();
    std::fflush(out);
    if (options.check && !console.Satisfied()) return 3;
    return 0;
}
