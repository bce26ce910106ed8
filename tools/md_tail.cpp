// md-tail: follows the depth records md-record publishes into Redis Streams
// and prints them like md-journal cat.
//
//   md-tail --redis redis://127.0.0.1:6379 --instrument cu2501.SHFE
//   md-tail --redis /run/redis.sock --exchange SHFE --since 10:15:00 --format csv
//   md-tail --redis redis://10.0.0.5:6379 --group strategies --consumer worker-1
//
// Without --instrument or --exchange it follows every exchange stream that
// md-record has listed. The password comes from ORVEX_REDIS_PASSWORD or
// --redis-config FILE ([redis] password=...).
#include <signal.h>
#include <time.h>

#include <hiredis/hiredis.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "fanout/RedisLink.h"
#include "fanout/RedisSink.h"
#include "journal/JournalFormat.h"
#include "journal/JournalText.h"

namespace {

using namespace orvex::fanout;
using orvex::journal::Entry;

struct Options {
    std::string redis, config, prefix = "md";
    std::string instrument, exchange;
    std::string start = "$";   // a stream id to read after, or "$" for new entries only
    bool csv = false, status = false;
    uint64_t count = 0;        // 0: no limit
    double idleExit = 0;       // seconds without entries before exiting; 0: never
    std::string group, consumer;
};

void Usage(FILE* out) {
    std::fputs(
        "usage: md-tail --redis URL [--instrument ID.EXCHANGE | --exchange EXCHANGE] [options]\n"
        "\n"
        "  --redis URL          redis://HOST:PORT[/DB], unix:///PATH or /PATH\n"
        "  --redis-config FILE  an INI file with [redis] password=... (or ORVEX_REDIS_PASSWORD)\n"
        "  --prefix P           key prefix md-record used (md)\n"
        "  --instrument ID.EX   follow one instrument (its stream P:{EX}:ID)\n"
        "  --exchange EX        follow one exchange (P:{EX}); default: every exchange\n"
        "  --since HH:MM:SS     start at that receive time today (local time)\n"
        "  --since-ms MS        start at that receive time, ms since the epoch\n"
        "  --from-start         start at the oldest entry kept\n"
        "                       (default: only entries that arrive from now on)\n"
        "  --status             print the exchanges' status reports too\n"
        "  --format F           jsonl (default) or csv (depth records)\n"
        "  --count N            exit after N records\n"
        "  --idle-exit S        exit after S seconds without a record\n"
        "  --group G --consumer C   read as consumer C of group G (created when missing), so that\n"
        "                       several processes share the stream; entries are acknowledged once printed\n",
        out);
}

std::atomic<bool> g_stop{false};
void OnSignal(int) { g_stop = true; }

std::string SinceId(int64_t ms) {
    // XREAD and the group's start are exclusive: the last id before ms.
    return ms > 0 ? std::to_string(ms - 1) + "-18446744073709551615" : "0-0";
}

int64_t TodayAt(const char* text) {
    int h = 0, m = 0, s = 0;
    if (std::sscanf(text, "%d:%d:%d", &h, &m, &s) < 2) return -1;
    const time_t now = time(nullptr);
    struct tm local;
    localtime_r(&now, &local);
    local.tm_hour = h;
    local.tm_min = m;
    local.tm_sec = s;
    return static_cast<int64_t>(mktime(&local)) * 1000;
}

std::string Str(const redisReply* r) { return r && (r->type == REDIS_REPLY_STRING || r->type == REDIS_REPLY_STATUS) ? std::string(r->str, r->len) : ""; }

}  // namespace

int main(int argc, char** argv) {
    Options o;
    for (int i = 1; i < argc; ++i) {
        const std::string a = argv[i];
        auto value = [&]() -> std::string {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "md-tail: %s needs a value\n", a.c_str());
                std::exit(2);
            }
            return argv[++i];
        };
        if (a == "--help" || a == "-h") {
            Usage(stdout);
            return 0;
        } else if (a == "--redis") o.redis = value();
        else if (a == "--redis-config") o.config = value();
        else if (a == "--prefix") o.prefix = value();
        else if (a == "--instrument") o.instrument = value();
        else if (a == "--exchange") o.exchange = value();
        else if (a == "--since") {
            const int64_t ms = TodayAt(value().c_str());
            if (ms < 0) {
                std::fprintf(stderr, "md-tail: --since takes HH:MM:SS\n");
                return 2;
            }
            o.start = SinceId(ms);
        } else if (a == "--since-ms") o.start = SinceId(std::atoll(value().c_str()));
        else if (a == "--from-start") o.start = "0-0";
        else if (a == "--status") o.status = true;
        else if (a == "--format") {
            const std::string f = value();
            if (f != "jsonl" && f != "csv") {
                std::fprintf(stderr, "md-tail: --format takes jsonl or csv\n");
                return 2;
            }
            o.csv = f == "csv";
        } else if (a == "--count") o.count = std::strtoull(value().c_str(), nullptr, 10);
        else if (a == "--idle-exit") o.idleExit = std::atof(value().c_str());
        else if (a == "--group") o.group = value();
        else if (a == "--consumer") o.consumer = value();
        else {
            std::fprintf(stderr, "md-tail: unknown option %s (see --help)\n", a.c_str());
            return 2;
        }
    }
    if (o.redis.empty() || o.group.empty() != o.consumer.empty()) {
        Usage(stderr);
        return 2;
    }
    RedisAddress address;
    std::string error;
    if (!ParseRedisUrl(o.redis, &address, &error)) {
        std::fprintf(stderr, "md-tail: %s\n", error.c_str());
        return 2;
    }
    RedisLink link;
    if (!link.Open(address, RedisPassword(o.config), 5000, &error)) {
        std::fprintf(stderr, "md-tail: %s\n", error.c_str());
        return 2;
    }
    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    action.sa_handler = OnSignal;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    // A Redis that goes away mid-write must not kill the process: hiredis
    // writes with plain write(), and the error is handled where it comes.
    signal(SIGPIPE, SIG_IGN);

    // The streams, and where each starts.
    std::map<std::string, std::string> after;   // key -> last id read
    auto follow = [&](const std::string& key) {
        if (after.count(key)) return;
        std::string start = o.start;
        if (!o.group.empty()) {
            redisReply* r = link.Command({"XGROUP", "CREATE", key, o.group, start, "MKSTREAM"});
            if (r && r->type == REDIS_REPLY_ERROR && std::string(r->str, r->len).find("BUSYGROUP") == std::string::npos)
                std::fprintf(stderr, "md-tail: %s: %s\n", key.c_str(), r->str);
            FreeReply(r);
            start = ">";
        } else if (start == "$") {
            // The newest id now, so that nothing arriving between two reads
            // is missed.
            redisReply* r = link.Command({"XREVRANGE", key, "+", "-", "COUNT", "1"});
            start = "0-0";
            if (r && r->type == REDIS_REPLY_ARRAY && r->elements == 1 && r->element[0]->elements >= 1)
                start = Str(r->element[0]->element[0]);
            FreeReply(r);
        }
        after[key] = start;
    };
    const size_t dot = o.instrument.find('.');
    std::string filter;   // an instrument to pick out of an exchange stream
    if (!o.instrument.empty()) {
        if (dot == std::string::npos) {
            std::fprintf(stderr, "md-tail: --instrument takes ID.EXCHANGE (cu2501.SHFE)\n");
            return 2;
        }
        const std::string ex = o.instrument.substr(dot + 1);
        const std::string key = RedisSink::InstrumentKey(o.prefix, ex, o.instrument.substr(0, dot));
        // A recorder with --redis-streams exchange keeps no instrument
        // streams: then the exchange's stream is read and filtered.
        redisReply* r = link.Command({"EXISTS", key});
        const bool exists = r && r->type == REDIS_REPLY_INTEGER && r->integer == 1;
        FreeReply(r);
        r = link.Command({"EXISTS", RedisSink::ExchangeKey(o.prefix, ex)});
        const bool exchangeExists = r && r->type == REDIS_REPLY_INTEGER && r->integer == 1;
        FreeReply(r);
        if (!exists && exchangeExists) {
            filter = o.instrument.substr(0, dot);
            follow(RedisSink::ExchangeKey(o.prefix, ex));
        } else {
            follow(key);
        }
    } else if (!o.exchange.empty()) {
        follow(RedisSink::ExchangeKey(o.prefix, o.exchange));
    }
    auto discover = [&] {
        redisReply* r = link.Command({"SMEMBERS", o.prefix + ":exchanges"});
        if (r && r->type == REDIS_REPLY_ARRAY)
            for (size_t i = 0; i < r->elements; ++i) follow(RedisSink::ExchangeKey(o.prefix, Str(r->element[i])));
        FreeReply(r);
    };
    const bool everything = o.instrument.empty() && o.exchange.empty();
    if (everything) discover();

    if (o.csv) std::printf("%s\n", orvex::journal::CsvHeader(orvex::journal::kDepth).c_str());
    uint64_t printed = 0;
    auto lastSeen = std::chrono::steady_clock::now(), lastDiscover = lastSeen;
    std::string line;
    while (!g_stop && (o.count == 0 || printed < o.count)) {
        const auto now = std::chrono::steady_clock::now();
        if (everything && now - lastDiscover > std::chrono::seconds(2)) {
            discover();
            lastDiscover = now;
        }
        if (o.idleExit > 0 && std::chrono::duration<double>(now - lastSeen).count() >= o.idleExit) break;
        if (after.empty()) {
            struct timespec pause = {0, 200000000};
            nanosleep(&pause, nullptr);
            continue;
        }
        std::vector<std::string> args;
        if (o.group.empty()) {
            args = {"XREAD", "COUNT", "1000", "BLOCK", "200", "STREAMS"};
        } else {
            args = {"XREADGROUP", "GROUP", o.group, o.consumer, "COUNT", "1000", "BLOCK", "200", "STREAMS"};
        }
        for (const auto& kv : after) args.push_back(kv.first);
        for (const auto& kv : after) args.push_back(kv.second);
        redisReply* r = link.Command(args);
        if (!r) {
            std::fprintf(stderr, "md-tail: %s\n", link.Error().c_str());
            return 1;
        }
        if (r->type == REDIS_REPLY_ERROR) {
            std::fprintf(stderr, "md-tail: %s\n", r->str);
            FreeReply(r);
            return 1;
        }
        std::vector<std::pair<std::string, std::string>> acks;
        for (size_t s = 0; r->type == REDIS_REPLY_ARRAY && s < r->elements; ++s) {
            const redisReply* stream = r->element[s];
            if (stream->elements < 2) continue;
            const std::string key = Str(stream->element[0]);
            const redisReply* entries = stream->element[1];
            for (size_t e = 0; e < entries->elements; ++e) {
                const redisReply* entry = entries->element[e];
                if (entry->elements < 2) continue;
                const std::string id = Str(entry->element[0]);
                if (o.group.empty()) after[key] = id;
                else acks.emplace_back(key, id);
                const redisReply* fields = entry->element[1];
                std::string kind, raw, rt, instrument;
                for (size_t f = 0; f + 1 < fields->elements; f += 2) {
                    const std::string name = Str(fields->element[f]);
                    if (name == "k") kind = Str(fields->element[f + 1]);
                    else if (name == "i") instrument = Str(fields->element[f + 1]);
                    else if (name == "r") raw = Str(fields->element[f + 1]);
                    else if (name == "rt") rt = Str(fields->element[f + 1]);
                }
                const bool depth = kind == "depth" && raw.size() == sizeof(COrvexWiraDepthMarketDataField);
                const bool status = kind == "status" && raw.size() == sizeof(COrvexWiraMarketStatusField);
                if (!depth && !(status && o.status && !o.csv)) continue;
                if (!filter.empty() && (!depth || instrument != filter)) continue;
                if (o.count && printed >= o.count) continue;
                Entry x;
                x.kind = depth ? orvex::journal::kDepth : orvex::journal::kStatus;
                x.time = std::atoll(rt.c_str());
                x.payload = reinterpret_cast<const unsigned char*>(raw.data());
                x.size = static_cast<uint32_t>(raw.size());
                line.clear();
                if (o.csv) orvex::journal::AppendCsv(x, &line);
                else orvex::journal::AppendJson(x, &line);
                line += '\n';
                std::fwrite(line.data(), 1, line.size(), stdout);
                ++printed;
                lastSeen = std::chrono::steady_clock::now();
            }
        }
        FreeReply(r);
        std::fflush(stdout);
        for (const auto& a : acks) FreeReply(link.Command({"XACK", a.first, o.group, a.second}));
    }
    return 0;
}
