#include "fanout/RedisLink.h"

#include <hiredis/hiredis.h>

#include <cstdlib>
#include <fstream>

namespace orvex {
namespace fanout {

std::string RedisAddress::Describe() const {
    return path.empty() ? host + ":" + std::to_string(port) + (db ? "/" + std::to_string(db) : "")
                        : path + (db ? "?db=" + std::to_string(db) : "");
}

bool ParseRedisUrl(const std::string& url, RedisAddress* out, std::string* error) {
    auto fail = [&](const std::string& why) {
        if (error) *error = "bad Redis address \"" + url + "\": " + why;
        return false;
    };
    *out = RedisAddress();
    auto number = [](const std::string& s, int* v) {
        if (s.empty() || s.size() > 9 || s.find_first_not_of("0123456789") != std::string::npos) return false;
        *v = std::atoi(s.c_str());
        return true;
    };
    if (!url.empty() && url[0] == '/') {
        out->path = url;
        return true;
    }
    if (url.rfind("unix://", 0) == 0) {
        std::string rest = url.substr(7);
        const size_t q = rest.find("?db=");
        if (q != std::string::npos) {
            if (!number(rest.substr(q + 4), &out->db)) return fail("the database is not a number");
            rest = rest.substr(0, q);
        }
        if (rest.empty() || rest[0] != '/') return fail("a unix socket needs an absolute path");
        out->path = rest;
        return true;
    }
    if (url.rfind("redis://", 0) != 0) return fail("use redis://HOST:PORT[/DB], unix:///PATH or /PATH");
    std::string rest = url.substr(8);
    if (rest.find('@') != std::string::npos) return fail("no credentials in the address (use ORVEX_REDIS_PASSWORD)");
    const size_t slash = rest.find('/');
    if (slash != std::string::npos) {
        if (!number(rest.substr(slash + 1), &out->db)) return fail("the database is not a number");
        rest = rest.substr(0, slash);
    }
    const size_t colon = rest.rfind(':');
    if (colon != std::string::npos) {
        if (!number(rest.substr(colon + 1), &out->port) || out->port <= 0 || out->port > 65535)
            return fail("the port is not a number from 1 to 65535");
        rest = rest.substr(0, colon);
    }
    if (rest.empty()) return fail("no host");
    out->host = rest;
    return true;
}

std::string RedisPassword(const std::string& iniFile) {
    if (const char* env = std::getenv("ORVEX_REDIS_PASSWORD")) return env;
    if (iniFile.empty()) return "";
    std::ifstream in(iniFile);
    std::string line, section;
    while (std::getline(in, line)) {
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
        if (!line.empty() && line[0] == '[') {
            section = line.substr(1, line.find(']') - 1);
            continue;
        }
        if ((section == "redis" || section == "Redis") &&
            (line.rfind("password=", 0) == 0 || line.rfind("Password=", 0) == 0))
            return line.substr(9);
    }
    return "";
}

RedisLink::~RedisLink() { Close(); }

void RedisLink::Close() {
    if (m_ctx) redisFree(m_ctx);
    m_ctx = nullptr;
}

bool RedisLink::Open(const RedisAddress& address, const std::string& password, int timeoutMs, std::string* error,
                     bool* authFailed) {
    Close();
    if (authFailed) *authFailed = false;
    struct timeval tv;
    tv.tv_sec = timeoutMs / 1000;
    tv.tv_usec = (timeoutMs % 1000) * 1000;
    redisContext* c = address.path.empty() ? redisConnectWithTimeout(address.host.c_str(), address.port, tv)
                                           : redisConnectUnixWithTimeout(address.path.c_str(), tv);
    auto fail = [&](const std::string& why) {
        m_error = why;
        if (error) *error = why;
        Close();
        return false;
    };
    if (!c) return fail("cannot connect to Redis at " + address.Describe());
    m_ctx = c;
    if (c->err) return fail("cannot connect to Redis at " + address.Describe() + ": " + c->errstr);
    redisSetTimeout(c, tv);
    if (!password.empty()) {
        redisReply* r = Command({"AUTH", password});
        if (!r) return fail("Redis at " + address.Describe() + ": " + m_error);
        const bool ok = r->type != REDIS_REPLY_ERROR;
        const std::string said = r->type == REDIS_REPLY_ERROR ? std::string(r->str, r->len) : "";
        FreeReply(r);
        if (!ok) {
            if (authFailed) *authFailed = true;
            return fail("Redis at " + address.Describe() + " refused the password: " + said);
        }
    }
    // A server that wants a password says so here, before any data moves.
    redisReply* r = Command({"SELECT", std::to_string(address.db)});
    if (!r) return fail("Redis at " + address.Describe() + ": " + m_error);
    const bool ok = r->type != REDIS_REPLY_ERROR;
    const std::string said = ok ? "" : std::string(r->str, r->len);
    FreeReply(r);
    if (!ok) {
        if (authFailed) *authFailed = said.find("NOAUTH") != std::string::npos || said.find("WRONGPASS") != std::string::npos;
        return fail("Redis at " + address.Describe() + " refused the connection: " + said +
                    (password.empty() ? " (set ORVEX_REDIS_PASSWORD)" : ""));
    }
    return true;
}

bool RedisLink::Append(const std::vector<std::string>& args) {
    std::vector<const char*> argv;
    std::vector<size_t> lengths;
    for (const std::string& a : args) {
        argv.push_back(a.data());
        lengths.push_back(a.size());
    }
    return Append(static_cast<int>(argv.size()), argv.data(), lengths.data());
}

bool RedisLink::Append(int argc, const char** argv, const size_t* lengths) {
    if (!m_ctx) return false;
    return redisAppendCommandArgv(m_ctx, argc, argv, lengths) == REDIS_OK;
}

redisReply* RedisLink::Reply() {
    if (!m_ctx) return nullptr;
    void* reply = nullptr;
    if (redisGetReply(m_ctx, &reply) != REDIS_OK || !reply) {
        m_error = m_ctx->errstr[0] ? m_ctx->errstr : "connection lost";
        Close();
        return nullptr;
    }
    return static_cast<redisReply*>(reply);
}

bool RedisLink::Flush() {
    if (!m_ctx) return false;
    int done = 0;
    while (!done) {
        if (redisBufferWrite(m_ctx, &done) != REDIS_OK) {
            m_error = m_ctx->errstr[0] ? m_ctx->errstr : "connection lost";
            Close();
            return false;
        }
    }
    return true;
}

redisReply* RedisLink::Command(const std::vector<std::string>& args) {
    if (!Append(args)) return nullptr;
    return Reply();
}

void FreeReply(redisReply* reply) {
    if (reply) freeReplyObject(reply);
}

}  // namespace fanout
}  // namespace orvex
