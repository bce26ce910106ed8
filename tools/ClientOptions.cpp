#include "ClientOptions.h"

#include <signal.h>
#include <sys/stat.h>

#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

const char* const kClientUsage =
    "  --front URL          quote server front, tcp://host:port (repeatable)\n"
    "  --file-front URL     file server front, ftp://host:port: instrument answers then\n"
    "                       carry the contract files' fields (repeatable)\n"
    "  --user U             user id (demo)\n"
    "  --password P         password (demo)\n"
    "  --broker B           broker id (9999)\n"
    "  --flow DIR           directory of the library's log files (flow/)\n"
    "  --sub ID             subscribe: CODE.EXCHANGE, EXCHANGE or CODE (repeatable); filters\n"
    "                       only with [CONFIG] Subscribe=1 in ./OrvexWiraMdApi.def\n"
    "  --query [EXCHANGE]   query the instruments of one exchange, or of all (repeatable)\n"
    "  --duration S         run S seconds, then release and exit (default: until Ctrl-C)\n"
    "  --write-config       write ./OrvexWiraMdApi.def from the options below (Subscribe=1\n"
    "                       when --sub is given) and, with --file-front, ./qxsfc_login.ini\n"
    "  --log                with --write-config: Log=1 (daily log in the flow directory)\n"
    "  --delta              with --write-config: DeltaQuot=1 (pushes carry changes only)\n"
    "  --level N            with --write-config: Level=N (0: plain feed, 1: deep feed)\n";

int ParseClientOption(const char* tool, int argc, char** argv, int& i, ClientOptions& o) {
    const std::string arg = argv[i];
    auto value = [&](std::string& out) {
        if (i + 1 >= argc) {
            std::fprintf(stderr, "%s: %s needs a value\n", tool, arg.c_str());
            return false;
        }
        out = argv[++i];
        return true;
    };
    std::string v;
    if (arg == "--front" || arg == "--file-front" || arg == "--sub") {
        if (!value(v)) return 2;
        (arg == "--front" ? o.fronts : arg == "--sub" ? o.subscriptions : o.fileFronts).push_back(v);
    } else if (arg == "--user") {
        if (!value(o.user)) return 2;
    } else if (arg == "--password") {
        if (!value(o.password)) return 2;
    } else if (arg == "--broker") {
        if (!value(o.broker)) return 2;
    } else if (arg == "--flow") {
        if (!value(o.flow)) return 2;
    } else if (arg == "--query") {
        // The exchange is optional: the next argument is taken only when it
        // is not another option.
        if (i + 1 < argc && argv[i + 1][0] != '-') o.queries.push_back(argv[++i]);
        else o.queries.push_back("");
    } else if (arg == "--duration") {
        if (!value(v)) return 2;
        char* end = nullptr;
        const double seconds = std::strtod(v.c_str(), &end);
        if (end == v.c_str() || *end != '\0' || seconds < 0) {
            std::fprintf(stderr, "%s: bad value for %s: %s\n", tool, arg.c_str(), v.c_str());
            return 2;
        }
        o.duration = seconds;
    } else if (arg == "--level") {
        if (!value(v)) return 2;
        o.level = std::atoi(v.c_str());
    } else if (arg == "--write-config") {
        o.writeConfig = true;
    } else if (arg == "--log") {
        o.logFile = true;
    } else if (arg == "--delta") {
        o.delta = true;
    } else {
        return 0;
    }
    return 1;
}

// The library reads ./OrvexWiraMdApi.def when the API object is created, and
// a file-service worker reads ./qxsfc_login.ini for its own login.
bool WriteConfig(const ClientOptions& o, const char* tool) {
    std::ofstream def("./OrvexWiraMdApi.def");
    def << "; written by " << tool << "\n"
        << "[CONFIG]\n"
        << "Log=" << (o.logFile ? 1 : 0) << "\n"
        << "Subscribe=" << (o.subscriptions.empty() ? 0 : 1) << "\n"
        << "DeltaQuot=" << (o.delta ? 1 : 0) << "\n"
        << "Level=" << o.level << "\n"
        << "DomesticExchanges=0\n";
    if (!def) return false;
    if (!o.fileFronts.empty()) {
        std::ofstream login("./qxsfc_login.ini");
        login << "[LoginInfo]\nUser=" << o.user << "\nPassword=" << o.password << "\n";
        if (!login) return false;
    }
    return true;
}

// A small reader for this one check: section and key names without regard
// to case.
bool SubscribeModeConfigured() {
    std::ifstream in("./OrvexWiraMdApi.def");
    std::string line, section;
    auto lower = [](std::string s) {
        for (char& c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        return s;
    };
    while (std::getline(in, line)) {
        const std::string l = lower(line);
        if (!l.empty() && l[0] == '[') section = l.substr(1, l.find(']') - 1);
        else if (section == "config" && l.rfind("subscribe", 0) == 0 && l.find('=') != std::string::npos)
            return std::atoi(l.c_str() + l.find('=') + 1) != 0;
    }
    return false;
}

bool PrepareWorkingDirectory(const ClientOptions& o, const char* tool) {
    if (o.writeConfig && !WriteConfig(o, tool)) {
        std::fprintf(stderr, "%s: cannot write the configuration files here\n", tool);
        return false;
    }
    // The library writes its daily log into the flow directory; it must exist.
    if (!o.flow.empty()) mkdir(o.flow.c_str(), 0775);
    return true;
}

void CatchStopSignals(void (*handler)(int)) {
    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

int SendLogin(COrvexWiraMdApi* api, const ClientOptions& o, int requestId) {
    COrvexWiraReqUserLoginField req;
    std::memset(&req, 0, sizeof(req));
    std::snprintf(req.BrokerID, sizeof(req.BrokerID), "%s", o.broker.c_str());
    std::snprintf(req.UserID, sizeof(req.UserID), "%s", o.user.c_str());
    std::snprintf(req.Password, sizeof(req.Password), "%s", o.password.c_str());
    return api->ReqUserLogin(&req, requestId);
}

void SendSubscriptions(COrvexWiraMdApi* api, const ClientOptions& o) {
    if (o.subscriptions.empty()) return;
    std::vector<char*> ids;
    for (const std::string& s : o.subscriptions) ids.push_back(const_cast<char*>(s.c_str()));
    api->SubscribeMarketData(ids.data(), static_cast<int>(ids.size()));
}

int SendQueries(COrvexWiraMdApi* api, const ClientOptions& o, int nextId) {
    int sent = 0;
    for (const std::string& exchange : o.queries) {
        COrvexWiraQryInstrumentField query;
        std::memset(&query, 0, sizeof(query));
        std::snprintf(query.ExchangeID, sizeof(query.ExchangeID), "%s", exchange.c_str());
        api->ReqQryInstrument(&query, nextId + sent);
        ++sent;
    }
    return sent;
}
