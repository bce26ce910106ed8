// md-journal: reads the tick journals md-record writes.
//
//   md-journal info PATH
//   md-journal cat PATH [--format jsonl|csv] [--kind K] [--instrument ID] [--from HH:MM:SS] [--to HH:MM:SS]
//   md-journal sqlite PATH DB
//
// PATH is a journal file or a directory of them (read in trading-day
// order). Times are receive times, in local time for --from/--to and in
// nanoseconds since the epoch in the output. A journal whose tail was torn
// (a recorder killed while writing) is read up to its last whole entry, and
// the tear is reported on standard error.
#include <sqlite3.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "TemplateFile.h"
#include "journal/JournalReader.h"
#include "journal/JournalText.h"
#include "journal/RecordFields.h"

namespace {

using namespace orvex::journal;

void Usage(FILE* out) {
    std::fputs(
        "usage: md-journal info PATH\n"
        "       md-journal cat PATH [--format jsonl|csv] [--kind K] [--instrument ID]\n"
        "                           [--from HH:MM:SS] [--to HH:MM:SS]\n"
        "       md-journal sqlite PATH DB\n"
        "\n"
        "PATH is a journal file or a directory of journal files.\n"
        "  info        the header, entries by kind, time range and instruments\n"
        "  cat         every field of every entry: jsonl (one object per entry, default) or csv\n"
        "              (one kind, depth unless --kind says otherwise)\n"
        "    --kind K        only entries of kind K: depth, status, instrument, login, template,\n"
        "                    linked, lost (repeatable)\n"
        "    --instrument ID only the depth records and instruments of ID (CODE or CODE.EXCHANGE)\n"
        "    --from, --to    receive time of day, local time, inclusive\n"
        "  sqlite      exports into the SQLite database DB (created or added to): tables depth,\n"
        "              status, instrument, login, template and event, indexed by instrument and time\n",
        out);
}

// Local time of day of a receive time, in milliseconds since midnight.
int64_t TimeOfDayMs(int64_t ns) {
    const time_t seconds = static_cast<time_t>(ns / 1000000000);
    struct tm local;
    localtime_r(&seconds, &local);
    return (local.tm_hour * 3600 + local.tm_min * 60 + local.tm_sec) * 1000LL + (ns / 1000000) % 1000;
}

std::string LocalTime(int64_t ns, bool withDate) {
    const time_t seconds = static_cast<time_t>(ns / 1000000000);
    struct tm local;
    localtime_r(&seconds, &local);
    char text[64];
    if (withDate)
        std::snprintf(text, sizeof(text), "%04d-%02d-%02d %02d:%02d:%02d.%09lld", local.tm_year + 1900, local.tm_mon + 1,
                      local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, static_cast<long long>(ns % 1000000000));
    else
        std::snprintf(text, sizeof(text), "%02d:%02d:%02d.%06lld", local.tm_hour, local.tm_min, local.tm_sec,
                      static_cast<long long>(ns % 1000000000 / 1000));
    return text;
}

// HH:MM:SS (or HH:MM) as milliseconds since midnight; -1 when malformed.
int64_t ParseClock(const char* text) {
    int h = 0, m = 0, s = 0;
    char extra = 0;
    const int n = std::sscanf(text, "%d:%d:%d%c", &h, &m, &s, &extra);
    if ((n != 3 && n != 2) || h < 0 || h > 23 || m < 0 || m > 59 || s < 0 || s > 60) return -1;
    return (h * 3600 + m * 60 + s) * 1000LL;
}

// Opens the files of a path in order and hands each to `each`; a file that
// cannot be read is reported and skipped (status 1), and `each` returning
// false stops with status 1.
int ForEachFile(const std::string& path, const std::function<bool(JournalReader&)>& each) {
    std::string error;
    const std::vector<std::string> files = JournalFiles(path, &error);
    if (files.empty()) {
        std::fprintf(stderr, "md-journal: %s\n", error.c_str());
        return 1;
    }
    int status = 0;
    for (const std::string& file : files) {
        JournalReader r;
        if (!r.Open(file, &error)) {
            std::fprintf(stderr, "md-journal: %s\n", error.c_str());
            status = 1;
            continue;
        }
        if (!each(r)) return 1;
    }
    return status;
}

void ReportTear(const JournalReader& r) {
    if (r.Torn())
        std::fprintf(stderr, "md-journal: %s: %llu bytes after offset %llu are not a whole entry (a torn tail); read up to there\n",
                     r.Path().c_str(), static_cast<unsigned long long>(r.Torn()), static_cast<unsigned long long>(r.Offset()));
}

int Info(const std::string& path) {
    bool first = true;
    return ForEachFile(path, [&](JournalReader& r) {
        const std::string& file = r.Path();
        if (!first) std::printf("\n");
        first = false;
        std::map<std::string, uint64_t> kinds;
        std::set<std::string> instruments;
        uint64_t total = 0;
        int64_t first = 0, last = 0;
        Entry e;
        while (r.Next(&e)) {
            ++total;
            const char* name = KindName(e.kind);
            ++kinds[name ? name : "kind " + std::to_string(e.kind)];
            if (e.kind == kDepth) {
                const std::string id = EntryInstrument(e);
                if (instruments.size() < 100000) instruments.insert(id + "." + EntryExchange(e));
            }
            if (!first) first = e.time;
            last = e.time;
        }
        const FileHeader& h = r.Header();
        std::printf("file         %s\n", file.c_str());
        std::printf("format       version %u; records: depth %u, status %u, instrument %u, login %u, result %u bytes\n",
                    h.version, h.depthSize, h.statusSize, h.instrumentSize, h.loginSize, h.infoSize);
        std::printf("trading day  %s\n", h.tradingDay);
        std::printf("started      %s (local)\n", LocalTime(h.startTime, true).c_str());
        std::printf("size         %llu bytes, ", static_cast<unsigned long long>(r.FileSize()));
        if (r.Torn())
            std::printf("torn tail: %llu bytes after offset %llu are not a whole entry\n",
                        static_cast<unsigned long long>(r.Torn()), static_cast<unsigned long long>(r.Offset()));
        else
            std::printf("whole to the end\n");
        std::string counts;
        for (const auto& kv : kinds) counts += (counts.empty() ? "" : ", ") + kv.first + " " + std::to_string(kv.second);
        std::printf("entries      %llu%s%s\n", static_cast<unsigned long long>(total), counts.empty() ? "" : ": ",
                    counts.c_str());
        if (total) std::printf("time range   %s - %s (local)\n", LocalTime(first, false).c_str(), LocalTime(last, false).c_str());
        std::string list;
        size_t shown = 0;
        for (const std::string& id : instruments) {
            if (shown++ == 20) {
                list += " ...";
                break;
            }
            list += " " + id;
        }
        std::printf("instruments  %zu%s%s\n", instruments.size(), list.empty() ? "" : ":", list.c_str());
        return true;
    });
}

struct CatOptions {
    bool csv = false;
    std::set<uint16_t> kinds;
    std::string instrument, exchange;
    int64_t fromMs = -1, toMs = -1;
};

// Template records' fields, by the template file each journal file opens
// with; lossless (every value as stored, doubles with 17 digits).
std::string TemplateMembers(const TemplateFile& templates, const Entry& e) {
    const TemplateLayout* t = templates.Find(e.aux);
    if (!t || t->size <= 0 || static_cast<uint32_t>(t->size) != e.size) return "";
    static const TemplateJson style = [] {
        TemplateJson s;
        s.text = [](const char* p, size_t width) { return JsonString(GbkToUtf8(p, width)); };
        s.price = [](double v) { return FormatDouble(v); };
        s.nulls = false;
        return s;
    }();
    return ",\"Template\":" + JsonString(t->name) + ",\"Fields\":{" +
           TemplateJsonMembers(*t, reinterpret_cast<const char*>(e.payload), style) + "}";
}

int Cat(const std::string& path, const CatOptions& o) {
    const uint16_t csvKind = o.kinds.empty() ? static_cast<uint16_t>(kDepth) : *o.kinds.begin();
    bool header = o.csv;
    std::string line;
    return ForEachFile(path, [&](JournalReader& r) {
        if (header) std::printf("%s\n", CsvHeader(csvKind).c_str());
        header = false;
        Entry e;
        TemplateFile templates;
        while (r.Next(&e)) {
            if (e.kind == kTemplates) templates.LoadText(std::string(reinterpret_cast<const char*>(e.payload), e.size));
            if (o.csv ? e.kind != csvKind : (!o.kinds.empty() && !o.kinds.count(e.kind))) continue;
            if (!o.instrument.empty()) {
                if (EntryInstrument(e) != o.instrument) continue;
                if (!o.exchange.empty() && EntryExchange(e) != o.exchange) continue;
            }
            if (o.fromMs >= 0 || o.toMs >= 0) {
                const int64_t ms = TimeOfDayMs(e.time);
                if (o.fromMs >= 0 && ms < o.fromMs) continue;
                if (o.toMs >= 0 && ms >= o.toMs + 1000) continue;
            }
            line.clear();
            if (o.csv) {
                AppendCsv(e, &line);
            } else {
                AppendJson(e, &line);
                if (e.kind == kTemplate) {
                    const std::string fields = TemplateMembers(templates, e);
                    if (!fields.empty()) line.insert(line.size() - 1, fields);
                }
            }
            line += '\n';
            std::fwrite(line.data(), 1, line.size(), stdout);
        }
        ReportTear(r);
        return true;
    });
}

// ---------------------------------------------------------------------------
// SQLite export
// ---------------------------------------------------------------------------

class Exporter {
public:
    ~Exporter() {
        for (auto& kv : m_statements) sqlite3_finalize(kv.second);
        if (m_db) sqlite3_close(m_db);
    }

    bool Open(const std::string& path) {
        if (sqlite3_open(path.c_str(), &m_db) != SQLITE_OK) return Fail("cannot open " + path);
        Exec("PRAGMA journal_mode=WAL");
        Exec("PRAGMA synchronous=OFF");
        const std::string t = "time INTEGER NOT NULL, file TEXT NOT NULL";
        bool ok = Exec("CREATE TABLE IF NOT EXISTS depth (" + t + Columns(DepthFields()) + ")") &&
                  Exec("CREATE TABLE IF NOT EXISTS status (" + t + Columns(StatusFields()) + ")") &&
                  Exec("CREATE TABLE IF NOT EXISTS instrument (" + t + Columns(InstrumentFields()) + Columns(InfoFields()) +
                       ", RequestID INTEGER, IsLast INTEGER)") &&
                  Exec("CREATE TABLE IF NOT EXISTS login (" + t + Columns(LoginFields()) + Columns(InfoFields()) +
                       ", RequestID INTEGER, IsLast INTEGER)") &&
                  Exec("CREATE TABLE IF NOT EXISTS template (" + t + ", PackageID INTEGER, Data BLOB)") &&
                  Exec("CREATE TABLE IF NOT EXISTS event (" + t + ", kind TEXT NOT NULL, Reason INTEGER)") &&
                  Exec("CREATE INDEX IF NOT EXISTS depth_instrument_time ON depth (InstrumentID, time)") &&
                  Exec("CREATE INDEX IF NOT EXISTS depth_time ON depth (time)") &&
                  Exec("CREATE INDEX IF NOT EXISTS status_exchange_time ON status (ExchangeID, time)") &&
                  Exec("CREATE INDEX IF NOT EXISTS instrument_instrument_time ON instrument (InstrumentID, time)");
        return ok;
    }

    bool Begin() { return Exec("BEGIN"); }
    bool Commit() { return Exec("COMMIT"); }

    bool Add(const Entry& e, const std::string& file) {
        switch (e.kind) {
            case kDepth:
                if (e.size != sizeof(COrvexWiraDepthMarketDataField)) return true;
                return Insert("depth", e, file, {{DepthFields(), e.payload}});
            case kStatus:
                if (e.size != sizeof(COrvexWiraMarketStatusField)) return true;
                return Insert("status", e, file, {{StatusFields(), e.payload}});
            case kInstrument: return Answer("instrument", e, file, InstrumentFields(), sizeof(COrvexWiraInstrumentField));
            case kLogin: return Answer("login", e, file, LoginFields(), sizeof(COrvexWiraRspUserLoginField));
            case kTemplate: {
                sqlite3_stmt* s = Statement("template", "INSERT INTO template VALUES (?, ?, ?, ?)");
                if (!s) return false;
                sqlite3_bind_int64(s, 1, e.time);
                sqlite3_bind_text(s, 2, file.c_str(), -1, SQLITE_TRANSIENT);
                sqlite3_bind_int(s, 3, e.aux);
                sqlite3_bind_blob(s, 4, e.payload, static_cast<int>(e.size), SQLITE_TRANSIENT);
                return Step(s);
            }
            case kLinked:
            case kLost: {
                sqlite3_stmt* s = Statement("event", "INSERT INTO event VALUES (?, ?, ?, ?)");
                if (!s) return false;
                sqlite3_bind_int64(s, 1, e.time);
                sqlite3_bind_text(s, 2, file.c_str(), -1, SQLITE_TRANSIENT);
                sqlite3_bind_text(s, 3, KindName(e.kind), -1, SQLITE_STATIC);
                int32_t reason = 0;
                if (e.kind == kLost && e.size >= 4) {
                    std::memcpy(&reason, e.payload, 4);
                    sqlite3_bind_int(s, 4, reason);
                } else {
                    sqlite3_bind_null(s, 4);
                }
                return Step(s);
            }
            default: return true;
        }
    }

    const std::string& Error() const { return m_error; }

private:
    struct Part {
        FieldList fields;
        const unsigned char* record;   // null: the columns are NULL
    };

    static const char* SqlType(const FieldDesc& f) {
        return f.type == FieldDesc::Double ? "REAL" : f.type == FieldDesc::Int ? "INTEGER" : "TEXT";
    }
    static std::string Columns(FieldList fields) {
        std::string out;
        for (const FieldDesc& f : fields) out += std::string(", ") + f.name + " " + SqlType(f);
        return out;
    }

    bool Answer(const char* table, const Entry& e, const std::string& file, FieldList fields, size_t recordSize) {
        if (e.size != kAnswerHead + recordSize + sizeof(COrvexWiraRspInfoField)) return true;
        const uint8_t flags = e.payload[4];
        int32_t id;
        std::memcpy(&id, e.payload, 4);
        const unsigned char* record = e.payload + kAnswerHead;
        return Insert(table, e, file,
                      {{fields, (flags & kHasRecord) ? record : nullptr},
                       {InfoFields(), (flags & kHasInfo) ? record + recordSize : nullptr}},
                      {id, (flags & kIsLast) ? 1 : 0});
    }

    bool Insert(const char* table, const Entry& e, const std::string& file, std::vector<Part> parts,
                std::vector<int> tail = {}) {
        sqlite3_stmt* s = m_statements[table];
        int columns = 2 + static_cast<int>(tail.size());
        for (const Part& p : parts) columns += static_cast<int>(p.fields.count);
        if (!s) {
            std::string sql = std::string("INSERT INTO ") + table + " VALUES (?";
            for (int i = 1; i < columns; ++i) sql += ", ?";
            s = Statement(table, sql + ")");
            if (!s) return false;
        }
        int n = 1;
        sqlite3_bind_int64(s, n++, e.time);
        sqlite3_bind_text(s, n++, file.c_str(), -1, SQLITE_TRANSIENT);
        for (const Part& p : parts) {
            for (const FieldDesc& f : p.fields) {
                if (!p.record) {
                    sqlite3_bind_null(s, n++);
                    continue;
                }
                const unsigned char* v = p.record + f.offset;
                switch (f.type) {
                    case FieldDesc::Double: {
                        double d;
                        std::memcpy(&d, v, 8);
                        sqlite3_bind_double(s, n++, d);
                        break;
                    }
                    case FieldDesc::Int: {
                        int i;
                        std::memcpy(&i, v, 4);
                        sqlite3_bind_int(s, n++, i);
                        break;
                    }
                    case FieldDesc::Char:
                    case FieldDesc::Text: {
                        const std::string text = GbkToUtf8(reinterpret_cast<const char*>(v), f.type == FieldDesc::Char ? 1 : f.size);
                        sqlite3_bind_text(s, n++, text.c_str(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
                        break;
                    }
                }
            }
        }
        for (int t : tail) sqlite3_bind_int(s, n++, t);
        return Step(s);
    }

    sqlite3_stmt* Statement(const std::string& key, const std::string& sql) {
        sqlite3_stmt*& s = m_statements[key];
        if (!s && sqlite3_prepare_v2(m_db, sql.c_str(), -1, &s, nullptr) != SQLITE_OK) {
            Fail(sql + ": " + sqlite3_errmsg(m_db));
            return nullptr;
        }
        return s;
    }

    bool Step(sqlite3_stmt* s) {
        const int rc = sqlite3_step(s);
        sqlite3_reset(s);
        sqlite3_clear_bindings(s);
        return rc == SQLITE_DONE || Fail(sqlite3_errmsg(m_db));
    }

    bool Exec(const std::string& sql) {
        char* message = nullptr;
        if (sqlite3_exec(m_db, sql.c_str(), nullptr, nullptr, &message) == SQLITE_OK) return true;
        const std::string why = message ? message : "error";
        sqlite3_free(message);
        return Fail(sql + ": " + why);
    }

    bool Fail(const std::string& why) {
        m_error = why;
        return false;
    }

    sqlite3* m_db = nullptr;
    std::map<std::string, sqlite3_stmt*> m_statements;
    std::string m_error;
};

int Sqlite(const std::string& path, const std::string& db) {
    Exporter out;
    if (!out.Open(db)) {
        std::fprintf(stderr, "md-journal: %s: %s\n", db.c_str(), out.Error().c_str());
        return 1;
    }
    std::map<std::string, uint64_t> counts;
    const int status = ForEachFile(path, [&](JournalReader& r) {
        if (!out.Begin()) return false;
        Entry e;
        while (r.Next(&e)) {
            if (!out.Add(e, r.Path())) {
                std::fprintf(stderr, "md-journal: %s: %s\n", db.c_str(), out.Error().c_str());
                return false;
            }
            const char* name = KindName(e.kind);
            if (name && e.kind != kTemplates) ++counts[name];
        }
        if (!out.Commit()) {
            std::fprintf(stderr, "md-journal: %s: %s\n", db.c_str(), out.Error().c_str());
            return false;
        }
        ReportTear(r);
        return true;
    });
    std::string summary;
    for (const auto& kv : counts) summary += (summary.empty() ? "" : ", ") + kv.first + " " + std::to_string(kv.second);
    std::fprintf(stderr, "md-journal: exported %s into %s\n", summary.empty() ? "nothing" : summary.c_str(), db.c_str());
    return status;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2 || std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0) {
        Usage(argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }
    const std::string command = argv[1];
    if (command == "info" && argc == 3) return Info(argv[2]);
    if (command == "sqlite" && argc == 4) return Sqlite(argv[2], argv[3]);
    if (command == "cat" && argc >= 3) {
        CatOptions o;
        for (int i = 3; i < argc; ++i) {
            const std::string arg = argv[i];
            if (i + 1 >= argc) {
                std::fprintf(stderr, "md-journal: %s needs a value\n", arg.c_str());
                return 2;
            }
            const std::string v = argv[++i];
            if (arg == "--format") {
                if (v != "jsonl" && v != "csv") {
                    std::fprintf(stderr, "md-journal: --format takes jsonl or csv, not %s\n", v.c_str());
                    return 2;
                }
                o.csv = v == "csv";
            } else if (arg == "--kind") {
                const uint16_t k = KindOf(v);
                if (!k || k == kTemplates) {
                    std::fprintf(stderr, "md-journal: unknown kind %s\n", v.c_str());
                    return 2;
                }
                o.kinds.insert(k);
            } else if (arg == "--instrument") {
                const size_t dot = v.find('.');
                o.instrument = v.substr(0, dot);
                if (dot != std::string::npos) o.exchange = v.substr(dot + 1);
            } else if (arg == "--from" || arg == "--to") {
                const int64_t ms = ParseClock(v.c_str());
                if (ms < 0) {
                    std::fprintf(stderr, "md-journal: %s takes HH:MM:SS, not %s\n", arg.c_str(), v.c_str());
                    return 2;
                }
                (arg == "--from" ? o.fromMs : o.toMs) = ms;
            } else {
                std::fprintf(stderr, "md-journal: unknown option %s (see --help)\n", arg.c_str());
                return 2;
            }
        }
        if (o.csv && o.kinds.size() > 1) {
            std::fprintf(stderr, "md-journal: csv holds one kind; give at most one --kind\n");
            return 2;
        }
        return Cat(argv[2], o);
    }
    Usage(stderr);
    return 2;
}
