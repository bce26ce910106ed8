// A connection to Redis: where it goes (a URL), and one blocking hiredis
// context with a time-out on every call.
//
//   redis://HOST:PORT[/DB]     TCP (port 6379 when left out)
//   unix:///PATH[?db=N]        a unix socket
//   /PATH                      a unix socket
//
// The password never comes from a command line: Open takes it from the
// caller (a configuration file or the environment, ORVEX_REDIS_PASSWORD).
// A RedisLink is used by one thread at a time.
#ifndef ORVEX_FANOUT_REDIS_LINK_H
#define ORVEX_FANOUT_REDIS_LINK_H

#include <string>
#include <vector>

struct redisContext;
struct redisReply;

namespace orvex {
namespace fanout {

struct RedisAddress {
    std::string host;       // empty for a unix socket
    int port = 6379;
    std::string path;       // the unix socket
    int db = 0;
    std::string Describe() const;
};

// False with a message when the URL is not one of the forms above.
bool ParseRedisUrl(const std::string& url, RedisAddress* out, std::string* error);

// The password of the environment (ORVEX_REDIS_PASSWORD), else of the
// [redis] password= line of an INI file when one is given; empty when none.
std::string RedisPassword(const std::string& iniFile);

class RedisLink {
public:
    RedisLink() = default;
    ~RedisLink();
    RedisLink(const RedisLink&) = delete;
    RedisLink& operator=(const RedisLink&) = delete;

    // Connects, authenticates and selects the database. On failure the
    // message says which step failed and what Redis answered; `authFailed`
    // tells a refused password from an unreachable server.
    bool Open(const RedisAddress& address, const std::string& password, int timeoutMs, std::string* error,
              bool* authFailed = nullptr);
    void Close();
    bool IsOpen() const { return m_ctx != nullptr; }

    // Pipelining: queue commands, then read their replies in order. A reply
    // of null means the connection failed (then it is closed).
    bool Append(const std::vector<std::string>& args);
    bool Append(int argc, const char** argv, const size_t* lengths);
    redisReply* Reply();
    // Writes what Append queued, without reading replies; false (and
    // closed) when the connection failed.
    bool Flush();
    // One command and its reply (null when the connection failed).
    redisReply* Command(const std::vector<std::string>& args);
    const std::string& Error() const { return m_error; }

private:
    redisContext* m_ctx = nullptr;
    std::string m_error;
};

// Frees a reply (hiredis's freeReplyObject).
void FreeReply(redisReply* reply);

}  // namespace fanout
}  // namespace orvex

#endif
