// The journal writer and reader together: entries come back byte for byte
// and in order, days go to their own files, a torn tail is read up to the
// last whole entry and cut before appending, a full queue is counted, and a
// journal of another format version is refused with a clear message.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "journal/JournalFormat.h"
#include "journal/JournalReader.h"
#include "journal/JournalWriter.h"
#include "support/JournalKit.h"
#include "support/RecordingSpi.h"

namespace {

using namespace orvex::journal;
using orvex_test::FileBytes;
using orvex_test::MakeDepth;
using orvex_test::OwnedEntry;
using orvex_test::ReadJournal;
using orvex_test::ScopedTempDir;
using orvex_test::WriteBytes;

struct Written {
    uint16_t kind;
    uint16_t aux;
    int64_t time;
    std::string payload;
};

JournalWriter::Options Quiet(const std::string& dir, std::vector<std::string>* log = nullptr) {
    JournalWriter::Options o;
    o.dir = dir;
    o.flushMs = 5;
    o.log = [log](const std::string& line) {
        if (log) log->push_back(line);
    };
    return o;
}

std::string DepthBytes(int seq, const char* day = "20250102") {
    const COrvexWiraDepthMarketDataField d = MakeDepth("cu2501", "SHFE", seq, day);
    return std::string(reinterpret_cast<const char*>(&d), sizeof(d));
}

void ExpectSame(const std::vector<Written>& want, const std::vector<OwnedEntry>& got) {
    ASSERT_EQ(want.size(), got.size());
    for (size_t i = 0; i < want.size(); ++i) {
        EXPECT_EQ(want[i].kind, got[i].kind) << i;
        EXPECT_EQ(want[i].aux, got[i].aux) << i;
        EXPECT_EQ(want[i].time, got[i].time) << i;
        EXPECT_EQ(want[i].payload, got[i].payload) << i;
    }
}

TEST(JournalWriter, EntriesReadBackByteForByteInOrder) {
    ScopedTempDir tmp;
    JournalWriter w(Quiet("j"));
    ASSERT_TRUE(w.Start(nullptr));
    std::vector<Written> want;
    auto add = [&](uint16_t kind, uint16_t aux, const std::string& payload) {
        const int64_t t = 1735779600000000000 + static_cast<int64_t>(want.size()) * 1000;
        ASSERT_TRUE(w.Add(kind, aux, t, payload.data(), static_cast<uint32_t>(payload.size())));
        want.push_back({kind, aux, t, payload});
    };
    add(kLinked, 0, "");   // before any trading day: waits for the first
    w.SetTradingDay("20250102");
    add(kLogin, 0, std::string(kLoginPayload, 'L'));
    for (int i = 0; i < 1000; ++i) add(kDepth, 0, DepthBytes(i));
    add(kTemplate, 901, std::string(100, '\x7f'));
    add(kLost, 0, std::string("\x01\x10\x00\x00", 4));
    w.Close();
    const JournalWriter::Stats s = w.GetStats();
    EXPECT_EQ(want.size(), s.entries);
    EXPECT_EQ(0u, s.dropped);
    EXPECT_EQ(1u, s.files);

    uint64_t torn = 99;
    std::string error;
    const std::vector<OwnedEntry> got = ReadJournal("j/20250102.mdj", &torn, &error);
    EXPECT_EQ("", error);
    EXPECT_EQ(0u, torn);
    ExpectSame(want, got);
    EXPECT_EQ(s.bytes, FileBytes("j/20250102.mdj").size());

    JournalReader r;
    ASSERT_TRUE(r.Open("j/20250102.mdj", &error));
    EXPECT_STREQ("20250102", r.Header().tradingDay);
    EXPECT_EQ(kJournalVersion, r.Header().version);
    EXPECT_EQ(408, r.Header().depthSize);
}

TEST(JournalWriter, TemplatesTextOpensEveryFileAndDaysGetTheirOwnFiles) {
    ScopedTempDir tmp;
    JournalWriter::Options o = Quiet("j");
    o.templatesText = "<qxpackets/>";
    JournalWriter w(o);
    ASSERT_TRUE(w.Start(nullptr));
    w.SetTradingDay("20250102");
    const std::string a = DepthBytes(1, "20250102"), b = DepthBytes(2, "20250103");
    w.Add(kDepth, 0, 1, a.data(), 408);
    w.SetTradingDay("20250102");   // the same day again: no new file
    w.Add(kDepth, 0, 2, a.data(), 408);
    w.SetTradingDay("20250103");
    w.Add(kDepth, 0, 3, b.data(), 408);
    w.Close();
    EXPECT_EQ(2u, w.GetStats().files);

    const std::vector<OwnedEntry> day1 = ReadJournal("j/20250102.mdj");
    const std::vector<OwnedEntry> day2 = ReadJournal("j/20250103.mdj");
    ASSERT_EQ(3u, day1.size());
    ASSERT_EQ(2u, day2.size());
    EXPECT_EQ(kTemplates, day1[0].kind);
    EXPECT_EQ("<qxpackets/>", day1[0].payload);
    EXPECT_EQ(kTemplates, day2[0].kind);
    EXPECT_EQ(2, day1[2].time);
    EXPECT_EQ(b, day2[1].payload);

    std::string error;
    const std::vector<std::string> files = JournalFiles("j", &error);
    ASSERT_EQ(2u, files.size());
    EXPECT_EQ("j/20250102.mdj", files[0]);
    EXPECT_EQ("j/20250103.mdj", files[1]);
}

// Every cut of the last entry, and tails of zeros or garbage, read back to
// the entries before it; a writer opening the day cuts the tail (and says
// so) and appends after it.
TEST(JournalWriter, TornTailsReadToLastWholeEntryAndAreCutBeforeAppending) {
    ScopedTempDir tmp;
    {
        JournalWriter w(Quiet("j"));
        ASSERT_TRUE(w.Start(nullptr));
        w.SetTradingDay("20250102");
        for (int i = 0; i < 3; ++i) {
            const std::string d = DepthBytes(i);
            w.Add(kDepth, 0, 100 + i, d.data(), 408);
        }
        w.Close();
    }
    const std::string whole = FileBytes("j/20250102.mdj");
    // Where the last entry starts (a delta: the three records differ a little).
    size_t lastStart = 0;
    {
        JournalReader r;
        ASSERT_TRUE(r.Open("j/20250102.mdj", nullptr));
        Entry e;
        for (int i = 0; i < 2; ++i) ASSERT_TRUE(r.Next(&e));
        lastStart = r.Offset();
        ASSERT_TRUE(r.Next(&e));
        ASSERT_EQ(whole.size(), r.Offset());
    }
    for (size_t cut = lastStart; cut < whole.size(); cut += 7) {
        WriteBytes("cut.mdj", whole.substr(0, cut));
        uint64_t torn = 0;
        EXPECT_EQ(2u, ReadJournal("cut.mdj", &torn).size()) << cut;
        EXPECT_EQ(cut - lastStart, torn) << cut;
    }
    // A power loss may leave the file longer, with zeros or stale bytes.
    WriteBytes("zeros.mdj", whole.substr(0, lastStart + 30) + std::string(4096, '\0'));
    EXPECT_EQ(2u, ReadJournal("zeros.mdj").size());
    std::string flipped = whole;
    flipped[whole.size() - 3] ^= 0x40;   // one bit of the last record
    WriteBytes("flipped.mdj", flipped);
    EXPECT_EQ(2u, ReadJournal("flipped.mdj").size());
    std::string hugeSize = whole;
    hugeSize[lastStart + 3] = '\x7f';   // a size far beyond the file
    WriteBytes("huge.mdj", hugeSize);
    EXPECT_EQ(2u, ReadJournal("huge.mdj").size());

    // Restart on the same day: the tail is cut, new entries follow.
    WriteBytes("j/20250102.mdj", whole.substr(0, lastStart + 100));
    std::vector<std::string> log;
    {
        JournalWriter w(Quiet("j", &log));
        ASSERT_TRUE(w.Start(nullptr));
        w.SetTradingDay("20250102");
        const std::string d = DepthBytes(9);
        w.Add(kDepth, 0, 900, d.data(), 408);
        w.Close();
        EXPECT_EQ(100u, w.GetStats().tornBytes);
    }
    uint64_t torn = 1;
    const std::vector<OwnedEntry> got = ReadJournal("j/20250102.mdj", &torn);
    EXPECT_EQ(0u, torn);
    ASSERT_EQ(3u, got.size());
    EXPECT_EQ(100, got[0].time);
    EXPECT_EQ(101, got[1].time);
    EXPECT_EQ(900, got[2].time);
    EXPECT_EQ(whole.substr(0, lastStart), FileBytes("j/20250102.mdj").substr(0, lastStart));
    bool said = false;
    for (const std::string& line : log) said = said || line.find("cut 100 bytes of a torn tail") != std::string::npos;
    EXPECT_TRUE(said);
}

TEST(JournalWriter, OtherFormatVersionsAreRefusedClearly) {
    ScopedTempDir tmp;
    {
        JournalWriter w(Quiet("j"));
        ASSERT_TRUE(w.Start(nullptr));
        w.SetTradingDay("20250102");
        const std::string d = DepthBytes(1);
        w.Add(kDepth, 0, 1, d.data(), 408);
        w.Close();
    }
    const std::string whole = FileBytes("j/20250102.mdj");
    for (uint16_t version : {uint16_t(0), uint16_t(2), uint16_t(0x0100)}) {
        std::string other = whole;
        std::memcpy(&other[8], &version, 2);
        WriteBytes("other.mdj", other);
        JournalReader r;
        std::string error;
        EXPECT_FALSE(r.Open("other.mdj", &error));
        EXPECT_NE(std::string::npos, error.find("journal format version " + std::to_string(version) + " is not supported"))
            << error;
        EXPECT_NE(std::string::npos, error.find("reads version 1")) << error;
    }
    std::string error;
    WriteBytes("text.mdj", std::string(100, 'x'));
    JournalReader r;
    EXPECT_FALSE(r.Open("text.mdj", &error));
    EXPECT_NE(std::string::npos, error.find("not a tick journal")) << error;
    std::string damaged = whole;
    damaged[30] = 'X';   // inside the trading day, covered by the header check
    WriteBytes("damaged.mdj", damaged);
    EXPECT_FALSE(r.Open("damaged.mdj", &error));
    EXPECT_NE(std::string::npos, error.find("damaged journal header")) << error;

    // A writer does not append to a newer journal: it leaves it as it is and
    // writes the day under the next name.
    std::string newer = whole;
    const uint16_t two = 2;
    std::memcpy(&newer[8], &two, 2);
    WriteBytes("j/20250102.mdj", newer);
    std::vector<std::string> log;
    {
        JournalWriter w(Quiet("j", &log));
        ASSERT_TRUE(w.Start(nullptr));
        w.SetTradingDay("20250102");
        const std::string d = DepthBytes(2);
        w.Add(kDepth, 0, 2, d.data(), 408);
        w.Close();
    }
    EXPECT_EQ(newer, FileBytes("j/20250102.mdj"));
    EXPECT_EQ(1u, ReadJournal("j/20250102.2.mdj").size());
    ASSERT_FALSE(log.empty());
    EXPECT_NE(std::string::npos, log[0].find("version 2 is not supported")) << log[0];
}

// A queue that cannot take more drops entries and counts every one of them:
// what was written plus what was dropped is what was added.
TEST(JournalWriter, FullQueueDropsAreCountedAndLogged) {
    ScopedTempDir tmp;
    std::vector<std::string> log;
    JournalWriter::Options o = Quiet("j", &log);
    o.queueBytes = 0;            // raised to the smallest queue
    o.flushMs = 60000;           // the writer wakes only when half full
    JournalWriter w(o);
    ASSERT_TRUE(w.Start(nullptr));
    w.SetTradingDay("20250102");
    const std::string d = DepthBytes(1);
    uint64_t accepted = 0, refused = 0;
    for (int i = 0; i < 20000; ++i) (w.Add(kDepth, 0, i, d.data(), 408) ? accepted : refused)++;
    w.Close();
    const JournalWriter::Stats s = w.GetStats();
    EXPECT_GT(refused, 0u);
    EXPECT_EQ(refused, s.dropped);
    EXPECT_EQ(accepted, s.entries);
    EXPECT_EQ(accepted, ReadJournal("j/20250102.mdj").size());
    EXPECT_LE(s.highWater, s.queueBytes);
    ASSERT_FALSE(log.empty());
    EXPECT_NE(std::string::npos, log[0].find("journal queue full: 1 entries dropped")) << log[0];
}

// Records of a few instruments whose fields move from one tick to the next,
// each added with its index as its time: whatever the writer keeps must read
// back as exactly those records, even where some never reached the file.
std::vector<std::string> MovingRecords(int count) {
    std::vector<std::string> v;
    for (int i = 0; i < count; ++i) {
        char id[16];
        std::snprintf(id, sizeof(id), "cu25%02d", i % 7);
        COrvexWiraDepthMarketDataField d = MakeDepth(id, "SHFE", i);
        d.BidVolume1 = i % 13;
        d.AskVolume3 = i % 5;
        v.emplace_back(reinterpret_cast<const char*>(&d), sizeof(d));
    }
    return v;
}

void ExpectEachIsTheRecordOfItsTime(const std::vector<std::string>& records, const std::vector<OwnedEntry>& got) {
    int64_t last = -1;
    for (const OwnedEntry& e : got) {
        ASSERT_EQ(kDepth, e.kind);
        ASSERT_GT(e.time, last);
        ASSERT_LT(e.time, static_cast<int64_t>(records.size()));
        EXPECT_EQ(records[static_cast<size_t>(e.time)], e.payload) << "record " << e.time;
        last = e.time;
    }
}

TEST(JournalWriter, RecordsAfterQueueDropsReadBackExact) {
    // A delta never rests on a record that was dropped: after a drop each
    // instrument's next record goes whole.
    ScopedTempDir tmp;
    JournalWriter::Options o = Quiet("j");
    o.queueBytes = 0;   // the smallest queue
    o.flushMs = 60000;  // the writer wakes only when half full
    JournalWriter w(o);
    ASSERT_TRUE(w.Start(nullptr));
    w.SetTradingDay("20250102");
    const std::vector<std::string> records = MovingRecords(40000);
    uint64_t accepted = 0;
    for (size_t i = 0; i < records.size(); ++i)
        accepted += w.Add(kDepth, 0, static_cast<int64_t>(i), records[i].data(), 408);
    w.Close();
    ASSERT_GT(w.GetStats().dropped, 0u);
    const std::vector<OwnedEntry> got = ReadJournal("j/20250102.mdj");
    EXPECT_EQ(accepted, got.size());
    ExpectEachIsTheRecordOfItsTime(records, got);
}

TEST(JournalWriter, RecordsAfterLostWritesReadBackExact) {
    // More than a megabyte before any trading day: the overflow is lost, and
    // what follows it must not be a delta from it.
    ScopedTempDir tmp;
    std::vector<std::string> log;
    JournalWriter::Options o = Quiet("j", &log);
    o.flushMs = 1;
    JournalWriter w(o);
    ASSERT_TRUE(w.Start(nullptr));
    const std::vector<std::string> records = MovingRecords(30000);
    // Batches of 500 until they no longer fit, then batches of 5 that do
    // fit in what is left: those must not be deltas from the lost ones.
    for (size_t i = 0; i < 20000; ++i) {
        ASSERT_TRUE(w.Add(kDepth, 0, static_cast<int64_t>(i), records[i].data(), 408));
        if (i % (i < 19000 ? 500 : 5) == 0) std::this_thread::sleep_for(std::chrono::milliseconds(3));
    }
    w.SetTradingDay("20250102");
    for (size_t i = 20000; i < records.size(); ++i)
        ASSERT_TRUE(w.Add(kDepth, 0, static_cast<int64_t>(i), records[i].data(), 408));
    w.Close();
    const JournalWriter::Stats s = w.GetStats();
    ASSERT_GT(s.dropped, 0u);
    bool said = false;
    for (const std::string& line : log) said = said || line.find("no trading day known yet") != std::string::npos;
    EXPECT_TRUE(said);
    const std::vector<OwnedEntry> got = ReadJournal("j/20250102.mdj");
    EXPECT_EQ(records.size() - s.dropped, got.size());
    ExpectEachIsTheRecordOfItsTime(records, got);
    // Everything after the day was known is there.
    ASSERT_GE(got.size(), 10000u);
    EXPECT_EQ(20000, got[got.size() - 10000].time);
}

// Many threads adding at once (the library calls back from its worker and
// its file-service threads): nothing lost, every entry whole.
TEST(JournalWriter, ConcurrentProducers) {
    ScopedTempDir tmp;
    JournalWriter w(Quiet("j"));
    ASSERT_TRUE(w.Start(nullptr));
    w.SetTradingDay("20250102");
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&w, t] {
            for (int i = 0; i < 5000; ++i) {
                const std::string d = DepthBytes(t * 10000 + i);
                w.Add(kDepth, static_cast<uint16_t>(t), i, d.data(), 408);
            }
        });
    for (std::thread& t : threads) t.join();
    w.Close();
    const std::vector<OwnedEntry> got = ReadJournal("j/20250102.mdj");
    ASSERT_EQ(20000u, got.size());
    std::vector<int64_t> next(4, 0);
    for (const OwnedEntry& e : got) {
        // MakeDepth puts 1000 + seq into Volume.
        const int seq = static_cast<int>(reinterpret_cast<const COrvexWiraDepthMarketDataField*>(e.payload.data())->Volume) - 1000;
        const int producer = seq / 10000;
        ASSERT_LT(producer, 4);
        EXPECT_EQ(next[producer]++, e.time);   // each producer's entries in its order
        EXPECT_EQ(DepthBytes(seq), e.payload);
    }
}

// The thread of the first depth record writes into a ring that wraps many
// times here: entries of every size, some that just fit before the end and
// some that do not, come back byte for byte and in order.
TEST(JournalWriter, EntriesOfEverySizeSurviveManyLapsOfTheRing) {
    ScopedTempDir tmp;
    JournalWriter::Options o = Quiet("j");
    o.queueBytes = 0;   // the smallest ring, about 66 KB
    o.flushMs = 1;
    JournalWriter w(o);
    ASSERT_TRUE(w.Start(nullptr));
    w.SetTradingDay("20250102");
    std::vector<Written> want;
    uint64_t refused = 0;
    auto add = [&](uint16_t kind, uint16_t aux, const std::string& payload) {
        const int64_t t = static_cast<int64_t>(want.size());
        while (!w.Add(kind, aux, t, payload.data(), static_cast<uint32_t>(payload.size()))) {
            ++refused;
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
        want.push_back({kind, kind == kDepth ? uint16_t{0} : aux, t, payload});
    };
    const std::vector<std::string> records = MovingRecords(3000);
    // First entries that end exactly at the ring's end: a depth record, then
    // templates of 8,448 bytes with their heads, then one that fills the rest.
    const size_t ring = w.GetStats().queueBytes & ~size_t{7};
    add(kDepth, 0, records[0]);
    size_t at = 24 + 408;
    while (ring - at > 2 * 8448) {
        add(kTemplate, 7, std::string(8448 - 24, 'x'));
        at += 8448;
    }
    add(kTemplate, 8, std::string(ring - at - 24, 'y'));
    for (size_t i = 0; i < records.size(); ++i) {
        add(kDepth, 0, records[i]);
        // Payloads of 0 to 3,000 bytes, none a whole number of words.
        const size_t n = (i * 37) % 3001;
        std::string payload(n, '\0');
        for (size_t k = 0; k < n; ++k) payload[k] = static_cast<char>(i + k * 7);
        add(kTemplate, static_cast<uint16_t>(900 + i % 50), payload);
        if (i % 5 == 0) add(kLinked, 0, "");
    }
    w.Close();
    const JournalWriter::Stats s = w.GetStats();
    EXPECT_EQ(refused, s.dropped);   // refusals are counted too
    EXPECT_GT(s.bytes, 20 * s.queueBytes);   // many laps
    std::vector<OwnedEntry> got = ReadJournal("j/20250102.mdj");
    ASSERT_EQ(want.size(), got.size());
    for (OwnedEntry& e : got)
        if (e.kind == kDepth) e.aux = 0;   // the writer's slot number
    ExpectSame(want, got);
}

// Another thread's entries and day switches land where that thread saw the
// owner's stream: right after the depth record it waited for.
TEST(JournalWriter, OtherThreadsEntriesAndDaysKeepTheirPlaceInTheStream) {
    ScopedTempDir tmp;
    JournalWriter::Options o = Quiet("j");
    o.flushMs = 2;
    JournalWriter w(o);
    ASSERT_TRUE(w.Start(nullptr));
    w.SetTradingDay("20250102");
    std::atomic<int> asked{-1}, done{-1};
    std::thread other([&] {
        for (int round = 0; round < 20; ++round) {
            while (asked.load() != round) std::this_thread::yield();
            const std::string answer(kLoginPayload, static_cast<char>('a' + round));
            w.Add(kLogin, 0, 1000000 + round, answer.data(), kLoginPayload);
            if (round == 10) w.SetTradingDay("20250103");
            done.store(round);
        }
    });
    for (int i = 0; i < 2000; ++i) {
        const std::string d = DepthBytes(i, i < 1100 ? "20250102" : "20250103");
        ASSERT_TRUE(w.Add(kDepth, 0, i, d.data(), 408));
        if (i % 100 == 99) {
            // After records 99, 199, ...: the other thread's answer.
            const int round = i / 100;
            asked.store(round);
            while (done.load() != round) std::this_thread::yield();
        }
    }
    other.join();
    w.Close();
    EXPECT_EQ(0u, w.GetStats().dropped);
    std::vector<OwnedEntry> all = ReadJournal("j/20250102.mdj");
    const std::vector<OwnedEntry> day2 = ReadJournal("j/20250103.mdj");
    // The second day begins with the records after the eleventh answer.
    ASSERT_FALSE(day2.empty());
    EXPECT_EQ(1100, day2[0].time);
    all.insert(all.end(), day2.begin(), day2.end());
    ASSERT_EQ(2020u, all.size());
    int64_t nextDepth = 0;
    for (size_t k = 0; k < all.size(); ++k) {
        if (all[k].kind == kDepth) {
            EXPECT_EQ(nextDepth++, all[k].time) << k;
            continue;
        }
        ASSERT_EQ(kLogin, all[k].kind) << k;
        const int64_t round = all[k].time - 1000000;
        EXPECT_EQ(100 * round + 100, nextDepth) << "answer " << round << " after record " << nextDepth - 1;
        EXPECT_EQ(std::string(kLoginPayload, static_cast<char>('a' + round)), all[k].payload);
    }
}

TEST(JournalWriter, WaitingBytesAreWhatTheWriterHasNotTaken) {
    ScopedTempDir tmp;
    JournalWriter::Options o = Quiet("j");
    o.flushMs = 60000;   // the writer waits for Close
    JournalWriter w(o);
    ASSERT_TRUE(w.Start(nullptr));
    const std::string d = DepthBytes(1);
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(w.Add(kDepth, 0, i, d.data(), 408));
    std::thread other([&] { ASSERT_TRUE(w.Add(kLinked, 0, 10, nullptr, 0)); });
    other.join();
    EXPECT_EQ(10u * 432 + 24, w.GetStats().waiting);
    w.SetTradingDay("20250102");
    w.Close();
    EXPECT_EQ(0u, w.GetStats().waiting);
    EXPECT_EQ(11u, ReadJournal("j/20250102.mdj").size());
}

TEST(JournalWriter, EntriesAfterCloseAreRefusedAndCounted) {
    ScopedTempDir tmp;
    JournalWriter w(Quiet("j"));
    ASSERT_TRUE(w.Start(nullptr));
    w.SetTradingDay("20250102");
    const std::string d = DepthBytes(1);
    ASSERT_TRUE(w.Add(kDepth, 0, 1, d.data(), 408));
    w.Close();
    EXPECT_FALSE(w.Add(kDepth, 0, 2, d.data(), 408));   // the owner's way
    std::thread other([&] { EXPECT_FALSE(w.Add(kLinked, 0, 3, nullptr, 0)); });   // everyone else's
    other.join();
    const JournalWriter::Stats s = w.GetStats();
    EXPECT_EQ(1u, s.entries);
    EXPECT_EQ(2u, s.dropped);
}

TEST(JournalWriter, NoTradingDayAtAllStillKeepsTheEntries) {
    ScopedTempDir tmp;
    JournalWriter w(Quiet("j"));
    ASSERT_TRUE(w.Start(nullptr));
    w.Add(kLinked, 0, 5, nullptr, 0);
    const int32_t reason = 4099;
    w.Add(kLost, 0, 6, &reason, 4);
    w.Close();
    std::string error;
    const std::vector<std::string> files = JournalFiles("j", &error);
    ASSERT_EQ(1u, files.size()) << error;
    const std::vector<OwnedEntry> got = ReadJournal(files[0]);
    ASSERT_EQ(2u, got.size());
    EXPECT_EQ(kLost, got[1].kind);
}

// Depth records go to the file as changes from the instrument's previous
// record: the file shrinks, every record reads back whole, and a delta whose
// base is missing is skipped, never turned into a made-up record.
TEST(JournalWriter, DepthDeltasReadBackWholeAndSmaller) {
    ScopedTempDir tmp;
    std::vector<std::string> records;
    for (int i = 0; i < 300; ++i) {
        const char* ids[3] = {"cu2501", "ag2502", "IF2503"};
        // What a push changes: the last price, the volume, the time, a level.
        COrvexWiraDepthMarketDataField d = MakeDepth(ids[i % 3], i % 3 == 2 ? "CFFEX" : "SHFE", 0);
        d.LastPrice += i;
        d.Volume += i;
        d.BidVolume1 += i;
        d.UpdateMillisec = i % 2 ? 500 : 0;
        d.UpdateTime[7] = static_cast<char>('0' + i / 3 % 10);
        if (i == 150) d.UpdateMillisec = 0x7FFFFFFF;   // any bytes at all
        records.emplace_back(reinterpret_cast<const char*>(&d), sizeof(d));
    }
    for (bool deltas : {true, false}) {
        JournalWriter::Options o = Quiet(deltas ? "deltas" : "whole");
        o.depthDeltas = deltas;
        JournalWriter w(o);
        ASSERT_TRUE(w.Start(nullptr));
        w.SetTradingDay("20250102");
        for (size_t i = 0; i < records.size(); ++i) {
            w.Add(kDepth, 0, static_cast<int64_t>(i), records[i].data(), 408);
            if (i == 100) w.Add(kLinked, 0, 0, nullptr, 0);
        }
        w.Close();
    }
    for (const char* dir : {"deltas/20250102.mdj", "whole/20250102.mdj"}) {
        std::vector<OwnedEntry> got = ReadJournal(dir);
        ASSERT_EQ(records.size() + 1, got.size()) << dir;
        got.erase(got.begin() + 101);
        for (size_t i = 0; i < records.size(); ++i) {
            EXPECT_EQ(kDepth, got[i].kind);
            EXPECT_EQ(0, got[i].aux);
            EXPECT_EQ(records[i], got[i].payload) << dir << " " << i;
        }
    }
    const size_t deltaSize = FileBytes("deltas/20250102.mdj").size();
    const size_t wholeSize = FileBytes("whole/20250102.mdj").size();
    EXPECT_EQ(kHeaderSize + 301 * kEntryHeadSize + 300 * 408, wholeSize);
    EXPECT_LT(deltaSize, wholeSize / 2);

    // The first entry is cu2501's whole record: without it, cu2501's
    // deltas have no base and are skipped; the others read as before.
    std::string bytes = FileBytes("deltas/20250102.mdj");
    bytes.erase(kHeaderSize, kEntryHeadSize + 408);
    WriteBytes("cut.mdj", bytes);
    const std::vector<OwnedEntry> cut = ReadJournal("cut.mdj");
    ASSERT_EQ(201u, cut.size());
    for (const OwnedEntry& e : cut) {
        if (e.kind != kDepth) continue;
        EXPECT_STRNE("cu2501", reinterpret_cast<const COrvexWiraDepthMarketDataField*>(e.payload.data())->InstrumentID);
    }
}

TEST(JournalFormat, MalformedDepthDeltasAreRefused) {
    const COrvexWiraDepthMarketDataField a = MakeDepth("cu2501", "SHFE", 1), b = MakeDepth("cu2501", "SHFE", 2);
    unsigned char delta[8 + 408];
    COrvexWiraDepthMarketDataField base = a;
    const size_t n = EncodeDepthDelta(reinterpret_cast<unsigned char*>(&base), reinterpret_cast<const unsigned char*>(&b), delta);
    EXPECT_EQ(0, std::memcmp(&base, &b, sizeof(b)));   // the base moves on to the new record
    COrvexWiraDepthMarketDataField r = a;
    ASSERT_TRUE(ApplyDepthDelta(delta, n, reinterpret_cast<unsigned char*>(&r)));
    EXPECT_EQ(0, std::memcmp(&r, &b, sizeof(r)));
    EXPECT_FALSE(ApplyDepthDelta(delta, n - 8, reinterpret_cast<unsigned char*>(&r)));   // a word short
    EXPECT_FALSE(ApplyDepthDelta(delta, 4, reinterpret_cast<unsigned char*>(&r)));
    unsigned char wide[16] = {0};
    wide[7] = 0x80;   // a word past the record's 51
    EXPECT_FALSE(ApplyDepthDelta(wide, 16, reinterpret_cast<unsigned char*>(&r)));
    // Equal records: the mask alone.
    base = a;
    EXPECT_EQ(8u, EncodeDepthDelta(reinterpret_cast<unsigned char*>(&base), reinterpret_cast<const unsigned char*>(&a), delta));
}

TEST(JournalFormat, DeltasOfEveryWordPatternRoundTrip) {
    // Every count of changed words, at scattered places, including all 51.
    COrvexWiraDepthMarketDataField a = MakeDepth("cu2501", "SHFE", 1);
    unsigned char* words = reinterpret_cast<unsigned char*>(&a);
    for (size_t changed = 0; changed <= kDepthWords; ++changed) {
        COrvexWiraDepthMarketDataField b = a;
        unsigned char* bw = reinterpret_cast<unsigned char*>(&b);
        for (size_t k = 0; k < changed; ++k) bw[8 * ((k * 19 + changed) % kDepthWords) + k % 8] ^= 0x5A;
        size_t distinct = 0;
        for (size_t w = 0; w < kDepthWords; ++w) distinct += std::memcmp(words + 8 * w, bw + 8 * w, 8) != 0;
        unsigned char delta[8 + 408];
        COrvexWiraDepthMarketDataField base = a;
        const size_t n = EncodeDepthDelta(reinterpret_cast<unsigned char*>(&base), bw, delta);
        EXPECT_EQ(8 + 8 * distinct, n);
        // With vectors or without, the same bytes.
        unsigned char plain[8 + 408];
        COrvexWiraDepthMarketDataField plainBase = a;
        ASSERT_EQ(n, EncodeDepthDeltaWithoutVectors(reinterpret_cast<unsigned char*>(&plainBase), bw, plain));
        EXPECT_EQ(0, std::memcmp(delta, plain, n)) << changed;
        EXPECT_EQ(0, std::memcmp(&plainBase, &b, sizeof(b))) << changed;
        COrvexWiraDepthMarketDataField r = a;
        ASSERT_TRUE(ApplyDepthDelta(delta, n, reinterpret_cast<unsigned char*>(&r)));
        EXPECT_EQ(0, std::memcmp(&r, &b, sizeof(r))) << changed;
        EXPECT_EQ(0, std::memcmp(&base, &b, sizeof(b))) << changed;
    }
}

TEST(JournalFormat, EntryChecksAreThoseOfEarlierFiles) {
    // Files already written carry these checks: the function must never
    // change, whatever its code becomes. Every size class of the tail is here.
    unsigned char head[16], payload[448];
    for (int i = 0; i < 16; ++i) head[i] = static_cast<unsigned char>(i * 7 + 1);
    for (int i = 0; i < 448; ++i) payload[i] = static_cast<unsigned char>(i * 31 + 5);
    const struct {
        size_t size;
        uint32_t check;
    } known[] = {{0, 0xF08CDF93u},   {1, 0x5EEAC122u},   {7, 0x98E01740u},   {8, 0x5777707Cu},   {9, 0x063D9572u},
                 {15, 0xC26731D7u},  {16, 0xF9ABBE4Bu},  {17, 0xF2A7A8E3u},  {23, 0x316C442Du},  {24, 0x3A658327u},
                 {25, 0x2EAE11FFu},  {31, 0x556D06EBu},  {32, 0x042043CAu},  {33, 0x8FDCB344u},  {40, 0x348EB6E5u},
                 {57, 0x6BD88A8Du},  {63, 0x08DE106Bu},  {64, 0xC3F3C458u},  {65, 0x2A82696Fu},  {96, 0x12358072u},
                 {100, 0x5B322681u}, {408, 0xEF1E9F7Au}, {416, 0xDBD82460u}, {440, 0x9F8F3375u}};
    for (const auto& k : known) EXPECT_EQ(k.check, EntryCheck(head, payload, k.size)) << k.size;
}

// The callback path's clock: never backwards on a thread, and within a
// fraction of a millisecond of the wall clock once its scale is known.
TEST(JournalClock, FastWallClockFollowsTheWallClock) {
    int64_t last = 0, worst = 0;
    const int64_t end = WallNanos() + 60000000;
    while (WallNanos() < end) {
        const int64_t before = WallNanos();
        const int64_t fast = FastWallNanos();
        const int64_t after = WallNanos();
        ASSERT_GE(fast, last);
        last = fast;
        const int64_t off = fast < before ? before - fast : fast > after ? fast - after : 0;
        worst = std::max(worst, off);
    }
    EXPECT_LT(worst, 200000) << "ns off the wall clock";
}

// A disk that is full: every entry that cannot be written is counted as
// dropped, and said once, never lost in silence.
TEST(JournalWriter, WriteErrorsAreCountedAsDrops) {
    ScopedTempDir tmp;
    ASSERT_EQ(0, system("mkdir -p j && ln -s /dev/full j/20250102.mdj"));
    std::vector<std::string> log;
    JournalWriter w(Quiet("j", &log));
    ASSERT_TRUE(w.Start(nullptr));
    w.SetTradingDay("20250102");
    const std::string d = DepthBytes(1);
    for (int i = 0; i < 100; ++i) ASSERT_TRUE(w.Add(kDepth, 0, i, d.data(), 408));
    w.Close();
    const JournalWriter::Stats s = w.GetStats();
    EXPECT_EQ(0u, s.entries);
    EXPECT_EQ(100u, s.dropped);
    EXPECT_GE(s.writeErrors, 1u);
    size_t said = 0;
    for (const std::string& line : log) said += line.find("cannot write") != std::string::npos;
    EXPECT_GE(said, 1u);
    EXPECT_LE(said, 2u);   // the header, then the first lost batch: not a line per batch
}

// A disk that fills up cuts a write part of the way through an entry. The
// file goes back to its last whole write, so that the entries written once
// there is room again are read after it, not lost behind a torn entry.
// (The file size limit plays the full disk, in a child process.)
TEST(JournalWriter, AWriteCutShortLeavesNoTornEntryBeforeLaterOnes) {
    ScopedTempDir tmp;
    const std::vector<std::string> records = MovingRecords(4000);
    const pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        signal(SIGXFSZ, SIG_IGN);
        rlimit limit{};
        getrlimit(RLIMIT_FSIZE, &limit);
        const rlim_t hard = limit.rlim_max;
        limit.rlim_cur = 100001;   // in the middle of some entry
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(10);
        JournalWriter::Options o;
        o.dir = "j";
        o.flushMs = 1;
        o.log = [](const std::string&) {};
        JournalWriter w(o);
        if (!w.Start(nullptr)) _exit(11);
        w.SetTradingDay("20250102");
        size_t i = 0;
        for (; i < 2000; ++i) {
            w.Add(kDepth, 0, static_cast<int64_t>(i), records[i].data(), 408);
            if (i % 50 == 0) usleep(2000);
        }
        for (int k = 0; k < 2000 && w.GetStats().waiting > 0; ++k) usleep(1000);
        if (w.GetStats().writeErrors == 0) _exit(12);
        limit.rlim_cur = hard;   // room again
        if (setrlimit(RLIMIT_FSIZE, &limit) != 0) _exit(13);
        for (; i < records.size(); ++i) w.Add(kDepth, 0, static_cast<int64_t>(i), records[i].data(), 408);
        w.Close();
        FILE* f = std::fopen("dropped", "w");
        std::fprintf(f, "%llu\n", static_cast<unsigned long long>(w.GetStats().dropped));
        std::fclose(f);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    ASSERT_TRUE(WIFEXITED(status));
    ASSERT_EQ(0, WEXITSTATUS(status));
    unsigned long long dropped = 0;
    FILE* f = std::fopen("dropped", "r");
    ASSERT_NE(nullptr, f);
    ASSERT_EQ(1, std::fscanf(f, "%llu", &dropped));
    std::fclose(f);
    uint64_t torn = 99;
    std::string error;
    const std::vector<OwnedEntry> got = ReadJournal("j/20250102.mdj", &torn, &error);
    EXPECT_EQ(0u, torn) << error;
    EXPECT_GT(dropped, 0u);
    EXPECT_EQ(records.size() - dropped, got.size());
    ExpectEachIsTheRecordOfItsTime(records, got);
    ASSERT_FALSE(got.empty());
    EXPECT_EQ(static_cast<int64_t>(records.size()) - 1, got.back().time);   // read to the very end
}

TEST(JournalWriter, StartFailsOnAPathThatIsNotADirectory) {
    ScopedTempDir tmp;
    WriteBytes("plain", "x");
    JournalWriter w(Quiet("plain"));
    std::string error;
    EXPECT_FALSE(w.Start(&error));
    EXPECT_NE(std::string::npos, error.find("not a directory")) << error;
    EXPECT_FALSE(w.Add(kLinked, 0, 1, nullptr, 0));
}

}  // namespace
