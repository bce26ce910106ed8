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

void RedisSink::GiveIds(Item& item, std::string_view exchangeKey, std::string_view instrumentKey) {
    if (item.hasIds) return;
    const uint64_t ms = static_cast<uint64_t>(item.receiveNs / 1000000);
    auto next = [this, ms](std::string_view key) -> const Clock& {
        auto it = m_clocks.find(key);
        if (it == m_clocks.end()) it = m_clocks.emplace(std::string(key), Clock()).first;
        Clock& c = it->second;
        if (ms > c.ms) {
            c.ms = ms;
            c.seq = 0;
        } else {
            ++c.seq;   // the same millisecond (or a clock that went back)
        }
        return c;
    };
    const Clock& ex = next(exchangeKey);
    item.exchangeMs = ex.ms;
    item.exchangeSeq = ex.seq;
    if (item.depth && m_options.instrumentStreams) {
        const Clock& in = next(instrumentKey);
        item.instrumentMs = in.ms;
        item.instrumentSeq = in.seq;
    }
    item.hasIds = true;
}

void RedisSink::Append(Batch& b) {
    std::deque<Item>& batch = b.items;
    // Per entry: the exchange stream, the instrument stream (depth), and
    // the exchange's name in the set the first time on this connection.
    // The arguments are formatted into fixed buffers: this loop runs for
    // every record.
    std::vector<int>& commands = b.commands;   // replies per entry
    commands.clear();
    commands.reserve(batch.size());
    char maxLen[24];
    std::snprintf(maxLen, sizeof(maxLen), "%llu", static_cast<unsigned long long>(m_options.maxLen));
    for (Item& item : batch) {
        const bool depth = item.depth;
        const char* exchange = depth ? item.d.ExchangeID : item.s.ExchangeID;
        const size_t exchangeLen = strnlen(exchange, sizeof(item.d.ExchangeID));
        const char* id = depth ? item.d.InstrumentID : "";
        const size_t idLen = depth ? strnlen(id, sizeof(item.d.InstrumentID)) : 0;
        char time[16];
        if (depth) {
            const int ms = item.d.UpdateMillisec < 0 ? 0 : item.d.UpdateMillisec % 1000;
            std::snprintf(time, sizeof(time), "%.8s.%03d", item.d.UpdateTime, ms);
        } else {
            std::snprintf(time, sizeof(time), "%.8s", item.s.UpdateTime);
        }
        const char* day = depth ? item.d.TradingDay : item.s.TradingDay;
        char rt[24];
        std::snprintf(rt, sizeof(rt), "%lld", static_cast<long long>(item.receiveNs));
        const char* raw = depth ? reinterpret_cast<const char*>(&item.d) : reinterpret_cast<const char*>(&item.s);
        const size_t rawSize = depth ? sizeof(item.d) : sizeof(item.s);
        char exchangeKey[64], instrumentKey[128];
        const int exchangeKeyLen = std::snprintf(exchangeKey, sizeof(exchangeKey), "%s:{%.*s}", m_options.prefix.c_str(),
                                                 static_cast<int>(exchangeLen), exchange);
        const int instrumentKeyLen = std::snprintf(instrumentKey, sizeof(instrumentKey), "%s:{%.*s}:%.*s",
                                                   m_options.prefix.c_str(), static_cast<int>(exchangeLen), exchange,
                                                   static_cast<int>(idLen), id);
        GiveIds(item, std::string_view(exchangeKey, static_cast<size_t>(exchangeKeyLen)),
                std::string_view(instrumentKey, static_cast<size_t>(instrumentKeyLen)));
        int n = 0;
        auto xadd = [&](const char* key, int keyLen, uint64_t ms, uint64_t seq) {
            char streamId[48];
            std::snprintf(streamId, sizeof(streamId), "%llu-%llu", static_cast<unsigned long long>(ms),
                          static_cast<unsigned long long>(seq));
            const char* argv[20] = {"XADD", key, "MAXLEN", "~", maxLen, streamId, "k", depth ? "depth" : "status",
                                    "i", id, "x", exchange, "t", time, "d", day, "rt", rt, "r", raw};
            const size_t len[20] = {4, static_cast<size_t>(keyLen), 6, 1, std::strlen(maxLen), std::strlen(streamId),
                                    1, depth ? 5u : 6u, 1, idLen, 1, exchangeLen, 1, std::strlen(time), 1,
                                    strnlen(day, 9), 2, std::strlen(rt), 1, rawSize};
            m_link.Append(20, argv, len);
            ++n;
        };
        const std::string_view exchangeText(exchange, exchangeLen);
        if (m_exchangesKnown.find(exchangeText) == m_exchangesKnown.end()) {
            m_exchangesKnown.emplace(exchangeText);
            m_link.Append({"SADD", m_options.prefix + ":exchanges", std::string(exchangeText)});
            ++n;
        }
        xadd(exchangeKey, exchangeKeyLen, item.exchangeMs, item.exchangeSeq);
        if (depth && m_options.instrumentStreams) xadd(instrumentKey, instrumentKeyLen, item.instrumentMs, item.instrumentSeq);
        commands.push_back(n);
    }
    m_link.Flush();
}

size_t RedisSink::ReadReplies(Batch& b) {
    std::deque<Item>& batch = b.items;
    const std::vector<int>& commands = b.commands;
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
    // Two batches in flight: while Redis works through one, the next is
    // formatted and sent, so that neither side waits for the other.
    std::deque<Batch> inflight;
    int backoffMs = 100;
    for (;;) {
        // Take the next batch when there is room in flight.
        if (inflight.size() < 2 && m_link.IsOpen()) {
            Batch next;
            {
                std::unique_lock<std::mutex> lock(m_lock);
                if (inflight.empty()) {
                    m_wake.wait(lock, [this] { return m_stop || !m_queue.empty(); });
                    if (m_queue.empty()) break;   // stopping, everything sent
                }
                while (!m_queue.empty() && next.items.size() < m_options.batch) {
                    next.items.push_back(std::move(m_queue.front()));
                    m_queue.pop_front();
                }
            }
            if (!next.items.empty()) {
                Append(next);
                inflight.push_back(std::move(next));
                continue;   // fill the second slot before waiting for replies
            }
        }
        if (!inflight.empty() && m_link.IsOpen()) {
            Batch& first = inflight.front();
            const size_t done = ReadReplies(first);
            if (done == first.items.size()) {
                inflight.pop_front();
                continue;
            }
            first.items.erase(first.items.begin(), first.items.begin() + static_cast<long>(done));
        }
        if (m_link.IsOpen()) continue;
        {
            // The connection broke, while sending or while reading replies.
            uint64_t written = 0;
            bool was = false;
            {
                std::lock_guard<std::mutex> lock(m_lock);
                was = m_stats.connected;
                m_stats.connected = false;
                written = m_stats.written;
            }
            if (was)
                Log("redis: connection to " + m_options.address.Describe() + " lost (" + m_link.Error() + ") after " +
                    std::to_string(written) + " entries written; keeping up to " + std::to_string(m_options.buffer) +
                    " entries while reconnecting");
        }
        {
            // Everything unacknowledged goes back to the front of the queue,
            // in order, so that it is sent first and, past the bound, is
            // the first dropped: it is the oldest.
            std::lock_guard<std::mutex> lock(m_lock);
            for (auto b = inflight.rbegin(); b != inflight.rend(); ++b)
                for (auto item = b->items.rbegin(); item != b->items.rend(); ++item) m_queue.push_front(std::move(*item));
            inflight.clear();
            while (m_queue.size() > m_options.buffer) {
                m_queue.pop_front();
                ++m_stats.dropped;
            }
        }
        if (Connect()) {
            Log("redis: reconnected to " + m_options.address.Describe());
            backoffMs = 100;
            continue;
        }
        std::unique_lock<std::mutex> lock(m_lock);
        if (m_stop && SteadyMs() >= m_drainUntil) {
            Log("redis: giving up at exit with " + std::to_string(m_queue.size()) + " entries unsent");
            m_stats.dropped += m_queue.size();
            m_queue.clear();
            break;
        }
        m_wake.wait_for(lock, std::chrono::milliseconds(backoffMs), [this] { return m_stop; });
        backoffMs = std::min(backoffMs * 2, 2000);
    }
    m_link.Close();
    std::lock_guard<std::mutex> lock(m_lock);
    m_stats.connected = false;
}

}  // namespace fanout
}  // namespace orvex
