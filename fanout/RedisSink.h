// Publishing depth records and status reports into Redis Streams.
//
// Keys (prefix "md" unless set otherwise):
//   md:{EXCHANGE}              every depth record and status report of the
//                              exchange, in order
//   md:{EXCHANGE}:INSTRUMENT   the instrument's depth records (unless
//                              instrumentStreams is off: then a consumer of
//                              one instrument filters its exchange's stream)
//   md:exchanges               a set of the exchange codes that have streams
// The braces keep an exchange's keys on one Redis Cluster slot. Entry ids
// are the receive time in milliseconds and a sequence number within the
// millisecond ("1735795200123-0"), so "from 10:15 on" is an id range. Each
// entry holds k (depth or status), i (instrument; empty for status), x
// (exchange), t (update time), d (trading day), rt (receive time, ns) and r
// (the record's exact bytes). Streams are trimmed with MAXLEN ~ maxLen.
//
// Add* is called on the library's callback threads: it copies the record
// into a bounded queue under a short lock and returns. A writer thread
// sends the queue to Redis, pipelined. While Redis is unreachable the queue
// holds up to `buffer` entries, the oldest dropped past that (counted, and
// logged at the first drop and each power of ten); the writer reconnects
// with a growing back-off (0.1 s to 2 s) and sends what waited, in order.
// An entry whose replies did not all come back is sent again with the same
// ids: Redis refuses an id it already has, so nothing is stored twice.
// The process should ignore SIGPIPE (md-record does): a write to a server
// that went away otherwise ends it.
#ifndef ORVEX_FANOUT_REDIS_SINK_H
#define ORVEX_FANOUT_REDIS_SINK_H

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "OrvexWiraMdStruct.h"
#include "fanout/RedisLink.h"
#include "fanout/Ring.h"

namespace orvex {
namespace fanout {

class RedisSink {
public:
    struct Options {
        RedisAddress address;
        std::string password;
        std::string prefix = "md";
        uint64_t maxLen = 1000000;      // MAXLEN ~ of every stream
        size_t buffer = 1000000;        // entries waiting at most
        size_t batch = 2048;            // entries per pipelined round trip
        bool instrumentStreams = true;  // also P:{EXCHANGE}:INSTRUMENT (half the throughput)
        int timeoutMs = 2000;
        std::function<void(const std::string&)> log;   // stderr when empty
    };
    struct Stats {
        uint64_t added = 0;        // entries handed to Add*
        uint64_t written = 0;      // entries Redis has acknowledged
        uint64_t dropped = 0;      // oldest entries dropped while the queue was full
        uint64_t duplicates = 0;   // entries Redis already had when sent again
        uint64_t refused = 0;      // entries Redis answered with another error
        uint64_t reconnects = 0;
        uint64_t waiting = 0;      // in the queue now
        uint64_t highWater = 0;    // most entries ever waiting
        bool connected = false;
    };

    explicit RedisSink(Options options);
    ~RedisSink();
    RedisSink(const RedisSink&) = delete;
    RedisSink& operator=(const RedisSink&) = delete;

    // Connects (a clear error when Redis is unreachable or refuses the
    // password) and starts the writer thread.
    bool Start(std::string* error);
    // Any thread.
    void AddDepth(const COrvexWiraDepthMarketDataField& d, int64_t receiveNs);
    void AddStatus(const COrvexWiraMarketStatusField& s, int64_t receiveNs);
    // Sends what waits (for at most `drainMs` while Redis is away), then
    // stops the writer.
    void Close(int drainMs = 5000);
    Stats GetStats() const;

    // The stream keys of an exchange and of an instrument.
    static std::string ExchangeKey(const std::string& prefix, const std::string& exchange);
    static std::string InstrumentKey(const std::string& prefix, const std::string& exchange, const std::string& id);

private:
    struct Item {
        bool depth = true;
        int64_t receiveNs = 0;
        union {
            COrvexWiraDepthMarketDataField d;
            COrvexWiraMarketStatusField s;
        };
        // Ids given when first sent, kept for sending again.
        uint64_t exchangeMs = 0, exchangeSeq = 0, instrumentMs = 0, instrumentSeq = 0;
        bool hasIds = false;
        Item() : d() {}
    };
    struct Clock {
        uint64_t ms = 0, seq = 0;
    };

    struct Batch {
        std::deque<Item> items;
        std::vector<int> commands;   // replies due per item
    };

    void Push(Item&& item);
    void Run();
    bool Connect();
    // Queues and sends a batch's commands without waiting for replies.
    void Append(Batch& batch);
    // Reads a sent batch's replies; returns how many of its first entries
    // are done (all their replies read). Fewer: the connection failed.
    size_t ReadReplies(Batch& batch);
    // Ids of an entry sent for the first time, from its streams' clocks.
    void GiveIds(Item& item, std::string_view exchangeKey, std::string_view instrumentKey);
    void Log(const std::string& line);

    Options m_options;
    mutable std::mutex m_lock;
    std::condition_variable m_wake;
    // A ring, not a deque: a deque of entries this size allocates a node
    // per entry, on the library's thread.
    Ring<Item> m_queue;
    bool m_stop = false;
    int64_t m_drainUntil = 0;   // steady ms; 0: no deadline
    Stats m_stats;

    // Writer thread only.
    RedisLink m_link;
    std::map<std::string, Clock, std::less<>> m_clocks;   // last id per stream
    std::set<std::string, std::less<>> m_exchangesKnown;     // added to md:exchanges on this connection
    std::thread m_thread;
    bool m_started = false;
};

}  // namespace fanout
}  // namespace orvex

#endif
