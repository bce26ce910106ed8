// A journal file of any bytes: the reader walks it (checks, depth deltas,
// torn tails), every entry is printed as JSON and CSV, a writer appends to
// it after cutting what is not whole, and the simulator builds a market
// from it and steps through its changes. Nothing may crash or read outside
// a buffer; what is read back after appending must start with what was
// whole before.
#include <sys/stat.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "JournalReplay.h"
#include "journal/JournalReader.h"
#include "journal/JournalText.h"
#include "journal/JournalWriter.h"

namespace {

std::string ScratchDir() {
    static std::string dir = [] {
        char tmpl[] = "/tmp/orvex-journal-fuzz-XXXXXX";
        const char* made = mkdtemp(tmpl);
        if (!made) std::abort();
        static std::string path = made;
        std::atexit([] { std::system(("rm -rf '" + path + "'").c_str()); });
        return path;
    }();
    return dir;
}

void WriteFile(const std::string& path, const uint8_t* data, size_t size) {
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) std::abort();
    if (size) std::fwrite(data, 1, size, f);
    std::fclose(f);
}

// Every whole entry as text; returns how many there were.
uint64_t Walk(const std::string& path) {
    orvex::journal::JournalReader r;
    std::string error;
    if (!r.Open(path, &error)) return 0;
    orvex::journal::Entry e;
    std::string out;
    uint64_t n = 0;
    while (r.Next(&e)) {
        out.clear();
        orvex::journal::AppendJson(e, &out);
        orvex::journal::AppendCsv(e, &out);
        (void)orvex::journal::EntryInstrument(e);
        (void)orvex::journal::EntryExchange(e);
        ++n;
    }
    (void)r.DepthRecordsAtMost();
    return n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string dir = ScratchDir() + "/j";
    mkdir(dir.c_str(), 0755);
    const std::string path = dir + "/20250102.mdj";
    WriteFile(path, data, size);
    const uint64_t before = Walk(path);

    // The simulator's replay of the same bytes.
    {
        qxsim::Market market;
        int64_t startMs = 0;
        qxsim::JournalReplayInfo info;
        std::string error;
        std::unique_ptr<qxsim::ReplaySource> source = qxsim::OpenJournalReplay(path, &market, &startMs, &info, &error);
        qxsim::ReplayChange change;
        for (int i = 0; source && i < 100000 && source->Next(&change); ++i) {
        }
    }

    // A recorder starting on this day appends after the whole entries.
    {
        orvex::journal::JournalWriter::Options o;
        o.dir = dir;
        o.log = [](const std::string&) {};
        orvex::journal::JournalWriter w(o);
        if (w.Start(nullptr)) {
            w.SetTradingDay("20250102");
            const int32_t reason = 4097;
            w.Add(orvex::journal::kLost, 0, 1, &reason, 4);
            w.Close();
        }
    }
    const uint64_t after = Walk(path);
    // A file that was a journal now has one whole entry more; another
    // file was left alone and 20250102.2.mdj took the entry.
    if (before > 0 && after != before + 1) std::abort();
    unlink((dir + "/20250102.2.mdj").c_str());
    return 0;
}
