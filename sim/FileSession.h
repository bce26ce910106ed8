// The simulated file server: its contract files and one client connection
// without the socket.
//
// ContractStore holds one "base" contract file per exchange, named
// "<exchange>_base_<trading day>.json" (for example shfe_base_20250102.json),
// a JSON object whose "ContractData" array has one element per contract:
//
//   "1" exchange, "2" instrument code, "3" name (UTF-8),
//   "4" listing day, "5" last trading day, "13" price tick,
//   "2017" first and "2018" last delivery day (days as YYYYMMDD numbers).
//
// FileSession answers the client's packages:
//
//    2  login        -> login accepted (2), or an error notice (1) and close
//   90  market list  -> the list of the markets' files (90), in pages
//    3  file request -> the file: information part, 4096-byte blocks, end (3)
//
// Answers carry the handle of the request they answer.
#ifndef QXSIM_FILE_SESSION_H
#define QXSIM_FILE_SESSION_H

#include <cstdint>
#include <string>
#include <vector>

#include "Market.h"
#include "QuoteSession.h"
#include "sf/QxsfWire.h"

namespace qxsim {

struct ContractFile {
    std::string name;        // "shfe_base_20250102.json"
    std::string market;      // upper-case exchange code it belongs to
    std::string content;
    UPDFILETIME time = {0, 0};
};

class ContractStore {
public:
    // One file per exchange from the market's instruments, stamped with
    // the clock value; numbered by each market's trading day.
    void Build(const Market& market, int64_t nowMs);
    const std::vector<ContractFile>& Files() const { return m_files; }
    // The files of an exchange code, in any case ("SHFE", "shfe").
    std::vector<const ContractFile*> ForMarket(const std::string& code) const;
    // By file name; a directory in front of it is ignored.
    const ContractFile* Find(const std::string& path) const;

private:
    std::vector<ContractFile> m_files;
};

struct FileOptions {
    std::string directory = "contract\\";
    int pageSize = 0;        // files per list page; 0: the whole list in one page
    bool compress = true;    // deflate answers where that makes them shorter
    std::string user;        // credentials a login must carry; empty: any
    std::string password;
};

struct FileSessionStats {
    int logins = 0;
    int lists = 0;
    int files = 0;
    uint64_t bytes = 0;      // file bytes sent
};

class FileSession {
public:
    FileSession(const ContractStore& store, const FileOptions& options, LogFn log = nullptr);

    void OnReceive(const char* data, size_t length);
    std::string TakeOutput();
    size_t PendingOutput() const { return m_out.size(); }
    // Framing error or refused login: close once the output is written.
    bool WantsClose() const { return m_close; }
    const FileSessionStats& Stats() const { return m_stats; }

private:
    void Answer(unsigned short handle, char command, const std::vector<char>& body);
    void Log(const std::string& text) const;

    const ContractStore& m_store;
    FileOptions m_options;
    LogFn m_log;
    std::vector<char> m_in;
    std::string m_out;
    bool m_close = false;
    bool m_loggedIn = false;
    FileSessionStats m_stats;
};

// FILETIME (100 ns units since 1601) of a clock value, split in two ints.
UPDFILETIME FileTimeOf(int64_t epochMs);

}  // namespace qxsim

#endif
