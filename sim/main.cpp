// qxdc-sim: a quote server and a file server on loopback with a synthetic
// market of the four domestic futures exchanges, for developing and testing
// applications of libOrvexMdUserApi without the vendor's services.
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Market.h"
#include "MarketRecord.h"
#include "Server.h"
#include "protocol/SampleTemplates.h"

using namespace qxsim;

namespace {

std::atomic<bool> g_stop{false};

void OnSignal(int) { g_stop.store(true); }

void Usage(FILE* out) {
    std::fputs(
        "usage: qxdc-sim [options]\n"
        "\n"
        "Serves a synthetic futures market (SHFE, DCE, CZCE, CFFEX) over the quote\n"
        "server protocol and its contract files over the file server protocol.\n"
        "\n"
        "  --host ADDR           address to listen on (127.0.0.1)\n"
        "  --port N              quote server port (7000; 0: any free port)\n"
        "  --file-port N         file server port (7001; 0: any free port; -1: no file server)\n"
        "  --ready-file FILE     write the ports there (\"quote_port=N\", \"file_port=N\") once listening\n"
        "  --instruments N       number of contracts (300; the catalogue lists about 530)\n"
        "  --rate N              quote updates per second over the whole market (200)\n"
        "  --seed N              random seed (1)\n"
        "  --duration S          stop after S seconds (0: run until SIGINT or SIGTERM)\n"
        "  --session S           trade S seconds, then close, roll to the next trading day,\n"
        "                        hold the opening auction and trade again (0: trade for ever)\n"
        "  --trading-day YMD     first trading day, YYYYMMDD (today, or the next business day)\n"
        "  --deep                serve the deep-feed markets 2011/2111/2211/2311 (for Level=1)\n"
        "  --utf8-names          send instrument names in UTF-8 instead of GBK\n"
        "  --login-form 1|2      login answer: 2 (command 83, access list) or 1 (command 82)\n"
        "  --user U, --password P        credentials the quote server requires (any by default);\n"
        "                                a wrong login is refused with code 9\n"
        "  --reject-login CODE   refuse every quote login with this code\n"
        "  --file-user U, --file-password P   credentials the file server requires\n"
        "  --page-size N         files per file-list page (0: one page); note that the library\n"
        "                        keeps only the files of the last page it receives\n"
        "  --quote-rows N        snapshot rows per packet (12, at most 15)\n"
        "  --no-compress         never deflate answers\n"
        "  --index-every N       an ExchangeIndex template package per market every N pushed rows\n"
        "                        (200; 0: none)\n"
        "  --write-templates FILE  write the templates of those packages (a qxdctrans.xml) and exit\n"
        "  --record FILE         record the market's changes into FILE\n"
        "  --replay PATH         replay a recording instead of simulating: a file written by\n"
        "                        --record, or a tick journal of md-record (a .mdj file or a\n"
        "                        directory of them), whose depth records and status reports\n"
        "                        are served again at their recorded pace\n"
        "  --quiet               log nothing but errors\n"
        "  --help\n",
        out);
}

bool ParseInt(const char* text, long min, long max, long* out) {
    char* end = nullptr;
    errno = 0;
    long v = std::strtol(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < min || v > max) return false;
    *out = v;
    return true;
}

bool WriteReadyFile(const std::string& path, uint16_t quotePort, uint16_t filePort) {
    const std::string temp = path + ".tmp";
    FILE* f = std::fopen(temp.c_str(), "w");
    if (!f) return false;
    std::fprintf(f, "quote_port=%u\nfile_port=%u\n", quotePort, filePort);
    std::fclose(f);
    return std::rename(temp.c_str(), path.c_str()) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    MarketConfig market;
    ServerOptions server;
    std::string recordPath, replayPath, readyFile;
    long duration = 0;
    bool quiet = false;

    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto value = [&](const char* name) -> const char* {
            if (i + 1 >= argc) {
                std::fprintf(stderr, "qxdc-sim: %s needs a value\n", name);
                std::exit(2);
            }
            return argv[++i];
        };
        auto number = [&](const char* name, long min, long max) {
            long v = 0;
            const char* text = value(name);
            if (!ParseInt(text, min, max, &v)) {
                std::fprintf(stderr, "qxdc-sim: bad value for %s: %s\n", name, text);
                std::exit(2);
            }
            return v;
        };
        if (arg == "--help" || arg == "-h") {
            Usage(stdout);
            return 0;
        } else if (arg == "--host") {
            server.host = value("--host");
        } else if (arg == "--port") {
            server.quotePort = static_cast<uint16_t>(number("--port", 0, 65535));
        } else if (arg == "--file-port") {
            long port = number("--file-port", -1, 65535);
            server.fileServer = port >= 0;
            server.filePort = static_cast<uint16_t>(port < 0 ? 0 : port);
        } else if (arg == "--ready-file") {
            readyFile = value("--ready-file");
        } else if (arg == "--instruments") {
            market.instruments = static_cast<int>(number("--instruments", 1, 2000));
        } else if (arg == "--rate") {
            market.rate = static_cast<double>(number("--rate", 0, 100000));
        } else if (arg == "--seed") {
            market.seed = static_cast<unsigned>(number("--seed", 0, 0x7FFFFFFF));
        } else if (arg == "--duration") {
            duration = number("--duration", 0, 365L * 86400);
        } else if (arg == "--session") {
            market.sessionSeconds = static_cast<int>(number("--session", 0, 86400));
        } else if (arg == "--trading-day") {
            market.tradingDay = static_cast<uint32_t>(number("--trading-day", 19900101, 29991231));
        } else if (arg == "--deep") {
            market.deepFeed = true;
        } else if (arg == "--utf8-names") {
            market.gbkNames = false;
        } else if (arg == "--login-form") {
            server.quote.loginForm = static_cast<int>(number("--login-form", 1, 2));
        } else if (arg == "--user") {
            server.quote.user = value("--user");
        } else if (arg == "--password") {
            server.quote.password = value("--password");
        } else if (arg == "--reject-login") {
            server.quote.rejectCode = static_cast<int>(number("--reject-login", 1, 65535));
        } else if (arg == "--file-user") {
            server.file.user = value("--file-user");
        } else if (arg == "--file-password") {
            server.file.password = value("--file-password");
        } else if (arg == "--page-size") {
            server.file.pageSize = static_cast<int>(number("--page-size", 0, 50));
        } else if (arg == "--quote-rows") {
            server.quote.quoteRows = static_cast<int>(number("--quote-rows", 1, 15));
        } else if (arg == "--index-every") {
            server.quote.indexEvery = static_cast<int>(number("--index-every", 0, 1000000000));
        } else if (arg == "--write-templates") {
            const std::string path = value("--write-templates");
            FILE* f = std::fopen(path.c_str(), "w");
            if (!f || std::fputs(SampleTemplates(), f) < 0 || std::fclose(f) != 0) {
                std::fprintf(stderr, "qxdc-sim: cannot write %s\n", path.c_str());
                return 1;
            }
            return 0;
        } else if (arg == "--no-compress") {
            server.quote.compress = false;
            server.file.compress = false;
        } else if (arg == "--record") {
            recordPath = value("--record");
        } else if (arg == "--replay") {
            replayPath = value("--replay");
        } else if (arg == "--quiet") {
            quiet = true;
        } else {
            std::fprintf(stderr, "qxdc-sim: unknown option %s (see --help)\n", arg.c_str());
            return 2;
        }
    }
    if (!recordPath.empty() && !replayPath.empty()) {
        std::fprintf(stderr, "qxdc-sim: --record and --replay exclude each other\n");
        return 2;
    }

    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    action.sa_handler = OnSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
    SetLogQuiet(quiet);

    const int64_t start = Server::NowMs();
    std::string error;
    Market simulated(market, start);
    Market replayed;
    MarketReplay replay;
    MarketRecorder recorder;
    Market* live = &simulated;
    if (!replayPath.empty()) {
        if (!replay.Open(replayPath, &replayed, start, &error)) {
            std::fprintf(stderr, "qxdc-sim: %s\n", error.c_str());
            return 1;
        }
        live = &replayed;
        LogLine("replay of " + replayPath + ": " + replay.Summary());
    }
    if (!recordPath.empty() && !recorder.Open(recordPath, *live, &error)) {
        std::fprintf(stderr, "qxdc-sim: %s\n", error.c_str());
        return 1;
    }

    Server loop(*live, server, replayPath.empty() ? nullptr : &replay, recordPath.empty() ? nullptr : &recorder);
    if (!loop.Listen(&error)) {
        std::fprintf(stderr, "qxdc-sim: cannot listen: %s\n", error.c_str());
        return 1;
    }

    // One line on standard output tells where to connect.
    std::printf("qxdc-sim: quote server tcp://%s:%u", server.host.c_str(), loop.QuotePort());
    if (server.fileServer) std::printf(", file server ftp://%s:%u", server.host.c_str(), loop.FilePort());
    const MarketInfo& first = live->Markets().front();
    std::printf("; %zu instruments, trading day %u%s\n", live->Instruments().size(), first.tradingDay,
                replayPath.empty() ? "" : " (replay)");
    std::fflush(stdout);
    for (const MarketInfo& m : live->Markets()) {
        std::string sample;
        for (size_t k = 0; k < m.instruments.size() && k < 6; ++k)
            sample += " " + live->Instruments()[m.instruments[k]].code;
        LogLine(std::string(ExchangeCode(m.exchange)) + " market " + std::to_string(m.id) + ": " +
                std::to_string(m.instruments.size()) + " instruments," + sample + (m.instruments.size() > 6 ? " ..." : ""));
    }
    if (!readyFile.empty() && !WriteReadyFile(readyFile, loop.QuotePort(), loop.FilePort())) {
        std::fprintf(stderr, "qxdc-sim: cannot write %s\n", readyFile.c_str());
        return 1;
    }

    loop.Run(g_stop, duration > 0 ? start + duration * 1000 : 0);
    recorder.Close();
    const ServerStats& s = loop.Stats();
    LogLine("stopped: " + std::to_string(s.quoteConnections) + " quote and " + std::to_string(s.fileConnections) +
            " file connections, " + std::to_string(live->Updates()) + " market updates, " +
            std::to_string(s.pushedRows) + " rows pushed" +
            (recordPath.empty() ? std::string() : ", " + std::to_string(recorder.Lines()) + " lines recorded"));
    return 0;
}
