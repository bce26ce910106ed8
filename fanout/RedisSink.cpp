#include "fanout/RedisSink.h"

#include <hiredis/hiredis.h>

#include <chrono>
#include <cstdio>
#include <cstring>

namespace orvex {
namespace fanout {

namespace {

int64_t SteadyMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

bool PowerOfTen(uint64_t n) {
    while (n >= 10 && n % 10 == 0) n /= 10;
    return n == 1;
}

std::string Text(const char* p, size_t width) { return std::string(p, strnlen(p, width)); }

}  // namespace

std::string RedisSink::ExchangeKey(const std::string& prefix, const std::string& exchange) {
    return prefix + ":{" + exchange + "}";
}

std::string RedisSink::InstrumentKey(const std::string& prefix, const std::string& exchange, const std::string& id) {
    return prefix + ":{" + exchange + "}:" + id;
}

RedisSink::RedisSink(Options options) : m_options(std::move(options)) {
    if (m_options.buffer < 1) m_options.buffer = 1;
    if (m_options.batch < 1) m_options.batch = 1;
}

RedisSink::~RedisSink() { Close(0); }

void RedisSink::Log(const std::string& line) {
    if (m_options.log) m_options.log(line);
    else std::fprintf(stderr, "%s\n", line.c_str());
}

bool RedisSink::Start(std::string* error) {
    if (m_started) return true;
    if (!m_link.Open(m_options.address, m_options.password, m_options.timeoutMs, error)) return false;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_stats.connected = true;
    }
    m_started = true;
    m_thread = std::thread([this] { Run(); });
    return true;
}

void RedisSink::AddDepth(const COrvexWiraDepthMarketDataField& d, int64_t receiveNs) {
    Item item;
    item.depth = true;
    item.receiveNs = receiveNs;
    item.d = d;
    Push(std::move(item));
}

void RedisSink::AddStatus(const COrvexWiraMarketStatusField& s, int64_t receiveNs) {
    Item item;
    item.depth = false;
    item.receiveNs = receiveNs;
    std::memset(&item.d, 0, sizeof(item.d));
    item.s = s;
    Push(std::move(item));
}

void RedisSink::Push(Item&& item) {
    uint64_t dropped = 0;
    bool wake = false;
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (!m_started || m_stop) return;
        ++m_stats.added;
        if (m_queue.size() >= m_options.buffer) {
            m_queue.pop_front();
            dropped = ++m_stats.dropped;
        }
        m_queue.push_back(std::move(item));
        if (m_queue.size() > m_stats.highWater) m_stats.highWater = m_queue.size();
        wake = m_queue.size() == 1;
    }
    if (wake) m_wake.notify_one();
    if (dropped && PowerOfTen(dropped))
        Log("redis: queue full (" + std::to_string(m_options.buffer) + " entries): " + std::to_string(dropped) +
            " oldest entries dropped so far");
}

void RedisSink::Close(int drainMs) {
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (!m_started || m_stop) return;
        m_stop = true;
        m_drainUntil = SteadyMs() + drainMs;
    }
    m_wake.notify_all();
    m_thread.join();
}

RedisSink::Stats RedisSink::GetStats() const {
    std::lock_guard<std::mutex> lock(m_lock);
    Stats s = m_stats;
    s.waiting = m_queue.size();
    return s;
}

void RedisSink::GiveIds(Item& item) {
    if (item.hasIds) return;
    const uint64_t ms = static_cast<uint64_t>(item.receiveNs / 1000000);
    auto next = [ms](Clock& c) {
        if (ms > c.ms) {
            c.ms = ms;
            c.seq = 0;
        } else {
            ++c.seq;   // the same millisecond (or a clock that went back)
        }
    };
    const std::string exchange = item.depth ? Text(item.d.ExchangeID, sizeof(item.d.ExchangeID))
                                            : Text(item.s.ExchangeID, sizeof(item.s.ExchangeID));
    Clock& ex = m_clocks[ExchangeKey(m_options.prefix, exchange)];
    next(ex);
    item.exchangeMs = ex.ms;
    item.exchangeSeq = ex.seq;
    if (item.depth) {
        Clock& in = m_clocks[InstrumentKey(m_options.prefix, exchange, Text(item.d.InstrumentID, sizeof(item.d.InstrumentID)))];
        next(in);
        item.instrumentMs = in.ms;
        item.instrumentSeq = in.seq;
    }
    item.hasIds = true;
}

size_t RedisSink::Send(std::deque<Item>& batch) {
    // Per entry: the exchange stream, the instrument stream (depth), and
    // the exchange's name in the set the first time on this connection.
    std::vector<int> commands;   // replies per entry
    const std::string maxLen = std::to_string(m_options.maxLen);
    for (Item& item : batch) {
        GiveIds(item);
        const bool depth = item.depth;
        const std::string exchange = depth ? Text(item.d.ExchangeID, sizeof(item.d.ExchangeID))
                                           : Text(item.s.ExchangeID, sizeof(item.s.ExchangeID));
        const std::string id = depth ? Text(item.d.InstrumentID, sizeof(item.d.InstrumentID)) : std::string();
        std::string time = depth ? Text(item.d.UpdateTime, sizeof(item.d.UpdateTime)) : Text(item.s.UpdateTime, sizeof(item.s.UpdateTime));
        if (depth) {
            char ms[8];
            std::snprintf(ms, sizeof(ms), ".%03d", item.d.UpdateMillisec % 1000 < 0 ? 0 : item.d.UpdateMillisec % 1000);
            time += ms;
        }
        const std::string day = depth ? Text(item.d.TradingDay, sizeof(item.d.TradingDay)) : Text(item.s.TradingDay, sizeof(item.s.TradingDay));
        const std::string rt = std::to_string(item.receiveNs);
        const char* raw = depth ? reinterpret_cast<const char*>(&item.d) : reinterpret_cast<const char*>(&item.s);
        const size_t rawSize = depth ? sizeof(item.d) : sizeof(item.s);
        int n = 0;
        auto xadd = [&](const std::string& key, uint64_t ms, uint64_t seq) {
            const std::string streamId = std::to_string(ms) + "-" + std::to_string(seq);
            const char* argv[20] = {"XADD", key.c_str(), "MAXLEN", "~", maxLen.c_str(), streamId.c_str(),
                                    "k", depth ? "depth" : "status", "i", id.c_str(), "x", exchange.c_str(),
                                    "t", time.c_str(), "d", day.c_str(), "rt", rt.c_str(), "r", raw};
            size_t len[20];
            for (int a = 0; a < 19; ++a) len[a] = std::strlen(argv[a]);
            len[19] = rawSize;
            m_link.Append(20, argv, len);
            ++n;
        };
        const std::string exchangeKey = ExchangeKey(m_options.prefix, exchange);
        if (m_exchangesKnown.insert(exchange).second) {
            m_link.Append({"SADD", m_options.prefix + ":exchanges", exchange});
            ++n;
        }
        xadd(exchangeKey, item.exchangeMs, item.exchangeSeq);
        if (depth) xadd(InstrumentKey(m_options.prefix, exchange, id), item.instrumentMs, item.instrumentSeq);
        commands.push_back(n);
    }
    size_t done = 0;
    uint64_t written = 0, duplicates = 0, refused = 0;
    std::string firstError;
    for (size_t i = 0; i < batch.size(); ++i) {
        bool duplicate = false, bad = false;
        for (int c = 0; c < commands[i]; ++c) {
            redisReply* r = m_link.Reply();
            if (!r) goto lost;
            if (r->type == REDIS_REPLY_ERROR) {
                const std::string said(r->str, r->len);
                // Sent again after a broken connection: Redis has it.
                if (said.find("equal or smaller") != std::string::npos) duplicate = true;
                else {
                    bad = true;
                    if (firstError.empty()) firstError = said;
                }
            }
            FreeReply(r);
        }
        ++done;
        if (bad) ++refused;
        else if (duplicate) ++duplicates;
        else ++written;
    }
lost:
    {
        std::lock_guard<std::mutex> lock(m_lock);
        m_stats.written += written;
        m_stats.duplicates += duplicates;
        m_stats.refused += refused;
    }
    if (!firstError.empty()) Log("redis: an entry was refused: " + firstError);
    return done;
}

bool RedisSink::Connect() {
    std::string error;
    bool authFailed = false;
    if (!m_link.Open(m_options.address, m_options.password, m_options.timeoutMs, &error, &authFailed)) return false;
    m_exchangesKnown.clear();
    std::lock_guard<std::mutex> lock(m_lock);
    ++m_stats.reconnects;
    m_stats.connected = true;
    return true;
}

void RedisSink::Run() {
    std::deque<Item> batch;
    int backoffMs = 100;
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(m_lock);
            if (batch.empty()) {
                m_wake.wait(lock, [this] { return m_stop || !m_queue.empty(); });
                if (m_queue.empty()) break;   // stopping, everything sent
                while (!m_queue.empty() && batch.size() < m_options.batch) {
                    batch.push_back(std::move(m_queue.front()));
                    m_queue.pop_front();
                }
            }
        }
        if (!m_link.IsOpen()) {
            if (Connect()) {
                Log("redis: reconnected to " + m_options.address.Describe());
                backoffMs = 100;
            } else {
                std::unique_lock<std::mutex> lock(m_lock);
                if (m_stop && SteadyMs() >= m_drainUntil) {
                    Log("redis: giving up at exit with " + std::to_string(batch.size() + m_queue.size()) +
                        " entries unsent");
                    m_stats.dropped += batch.size() + m_queue.size();
                    m_queue.clear();
                    batch.clear();
                    break;
                }
                // While waiting, what the batch holds still counts against
                // the bound: the oldest go first.
                while (!batch.empty() && batch.size() + m_queue.size() > m_options.buffer) {
                    batch.pop_front();
                    ++m_stats.dropped;
                }
                m_wake.wait_for(lock, std::chrono::milliseconds(backoffMs), [this] { return m_stop; });
                backoffMs = std::min(backoffMs * 2, 2000);
                continue;
            }
        }
        const size_t done = Send(batch);
        batch.erase(batch.begin(), batch.begin() + static_cast<long>(done));
        if (!batch.empty()) {
            uint64_t written;
            {
                std::lock_guard<std::mutex> lock(m_lock);
                m_stats.connected = false;
                written = m_stats.written;
            }
            Log("redis: connection to " + m_options.address.Describe() + " lost (" + m_link.Error() + ") after " +
                std::to_string(written) + " entries written; keeping up to " + std::to_string(m_options.buffer) +
                " entries while reconnecting");
        }
    }
    m_link.Close();
    std::lock_guard<std::mutex> lock(m_lock);
    m_stats.connected = false;
}

}  // namespace fanout
}  // namespace orvex
