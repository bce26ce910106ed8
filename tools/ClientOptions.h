// What every client tool takes to connect: fronts, login, subscriptions,
// queries, the configuration files it may write. Shared by md-console and
// md-record; public headers only.
#ifndef ORVEX_TOOLS_CLIENT_OPTIONS_H
#define ORVEX_TOOLS_CLIENT_OPTIONS_H

#include <string>
#include <vector>

#include "OrvexWiraMdApi.h"

struct ClientOptions {
    std::vector<std::string> fronts;       // tcp://host:port, quote servers
    std::vector<std::string> fileFronts;   // ftp://host:port, file servers (contract data)
    std::string user = "demo";
    std::string password = "demo";
    std::string broker = "9999";
    std::string flow = "flow/";            // directory of the library's daily log
    std::vector<std::string> subscriptions;
    std::vector<std::string> queries;      // exchange codes; "" for every exchange
    double duration = 0;                   // seconds; 0: until Ctrl-C
    bool writeConfig = false;              // write ./OrvexWiraMdApi.def (and ./qxsfc_login.ini)
    bool logFile = false;                  // [CONFIG] Log=1
    bool delta = false;                    // [CONFIG] DeltaQuot=1
    int level = 0;                         // [CONFIG] Level
};

// The usage lines of these options.
extern const char* const kClientUsage;

// Takes argv[i] (and its value) when it is one of these options.
// Returns 1 when taken (i moved past the value), 0 when not one of these,
// 2 after printing "<tool>: ..." for a bad or missing value.
int ParseClientOption(const char* tool, int argc, char** argv, int& i, ClientOptions& o);

// Writes ./OrvexWiraMdApi.def (and, with file fronts, ./qxsfc_login.ini);
// the library reads them when the API object is created.
bool WriteConfig(const ClientOptions& o, const char* tool);
// True when ./OrvexWiraMdApi.def turns subscription mode on.
bool SubscribeModeConfigured();

// Before the API object exists: writes the configuration files when asked
// (the library reads them when the object is created) and makes the flow
// directory. False after printing "<tool>: ..." when a file cannot be written.
bool PrepareWorkingDirectory(const ClientOptions& o, const char* tool);

// SIGINT and SIGTERM call `handler` (which should only set a flag).
void CatchStopSignals(void (*handler)(int));

// Sends the login of the options.
int SendLogin(COrvexWiraMdApi* api, const ClientOptions& o, int requestId);
// Subscribes what the options name (after every successful login).
void SendSubscriptions(COrvexWiraMdApi* api, const ClientOptions& o);
// Queries the options' exchanges; request ids from nextId on. Returns how
// many queries were sent.
int SendQueries(COrvexWiraMdApi* api, const ClientOptions& o, int nextId);

#endif
