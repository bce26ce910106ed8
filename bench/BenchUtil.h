// Small helpers shared by the benchmarks: one monotonic clock for senders
// and receivers of the same process, CPU and memory readings of the process
// and of single threads, percentiles, and a scratch working directory.
#ifndef ORVEX_BENCH_BENCH_UTIL_H
#define ORVEX_BENCH_BENCH_UTIL_H

#include <cstdint>
#include <string>
#include <vector>

namespace orvex_bench {

// Nanoseconds of the monotonic clock since the first call in this process.
// Small enough to travel exactly in a double.
int64_t NowNs();

// Sleeps for about `ns` nanoseconds.
void SleepNs(int64_t ns);
// Sleeps until NowNs() reaches `at` (at once when it has).
void SleepUntilNs(int64_t at);

// CPU time of the whole process (all threads, user + system), ns.
int64_t ProcessCpuNs();
// CPU time of one thread of this process, ns (from its scheduler
// statistics), or -1.
int64_t ThreadCpuNs(int tid);
// Voluntary context switches of one thread (each one a wake-up), or -1.
long ThreadWakeups(int tid);
// Id of the first thread of this process with this name, or -1.
int FindThread(const std::string& name);

// Binds one thread of this process (0: the calling thread) to one CPU.
// False when the machine has no such CPU or the call is refused.
bool PinThread(int tid, int cpu);
// Lets the thread run on any of these CPUs.
bool AllowCpus(int tid, const std::vector<int>& cpus);
// The CPUs this process may run on, in order.
std::vector<int> UsableCpus();

// Resident set size of the process, bytes.
int64_t ResidentBytes();
// Bytes of the heap in use (malloc's own count).
int64_t HeapInUseBytes();

// Percentile (0-100) of the values, by nearest rank; sorts them.
int64_t Percentile(std::vector<int64_t>& sorted, double p);

// A fresh directory under the system's temporary directory; removed (with
// its files, one level deep) by the destructor.
// printf into a string (at most 511 characters).
std::string Fmt(const char* format, ...) __attribute__((format(printf, 1, 2)));

class ScratchDir {
public:
    explicit ScratchDir(const char* prefix);
    ~ScratchDir();
    ScratchDir(const ScratchDir&) = delete;
    ScratchDir& operator=(const ScratchDir&) = delete;
    const std::string& Path() const { return m_path; }
    // Writes a file inside the directory.
    void Write(const std::string& name, const std::string& text) const;

private:
    std::string m_path;
};

}  // namespace orvex_bench

#endif
