#include "BenchUtil.h"

#include <sched.h>

#include <dirent.h>
#include <malloc.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace orvex_bench {

namespace {

int64_t RawMonotonicNs() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<int64_t>(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

const int64_t g_origin = RawMonotonicNs();

std::string ReadWhole(const std::string& path) {
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

}  // namespace

int64_t NowNs() { return RawMonotonicNs() - g_origin; }

void SleepNs(int64_t ns) {
    if (ns <= 0) return;
    timespec ts{static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
    while (nanosleep(&ts, &ts) != 0) {
    }
}

void SleepUntilNs(int64_t at) {
    const int64_t raw = at + g_origin;
    if (raw <= RawMonotonicNs()) return;
    timespec ts{static_cast<time_t>(raw / 1000000000), static_cast<long>(raw % 1000000000)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) != 0) {
    }
}

int64_t ProcessCpuNs() {
    rusage ru;
    getrusage(RUSAGE_SELF, &ru);
    auto ns = [](const timeval& tv) { return static_cast<int64_t>(tv.tv_sec) * 1000000000 + tv.tv_usec * 1000; };
    return ns(ru.ru_utime) + ns(ru.ru_stime);
}

int64_t ThreadCpuNs(int tid) {
    if (tid < 0) return -1;
    std::string s = ReadWhole("/proc/self/task/" + std::to_string(tid) + "/schedstat");
    if (s.empty()) return -1;
    return std::strtoll(s.c_str(), nullptr, 10);
}

long ThreadWakeups(int tid) {
    if (tid < 0) return -1;
    std::istringstream in(ReadWhole("/proc/self/task/" + std::to_string(tid) + "/status"));
    std::string line;
    while (std::getline(in, line)) {
        if (line.rfind("voluntary_ctxt_switches:", 0) == 0) return std::strtol(line.c_str() + 24, nullptr, 10);
    }
    return -1;
}

int FindThread(const std::string& name) {
    DIR* d = opendir("/proc/self/task");
    if (!d) return -1;
    int found = -1;
    while (dirent* e = readdir(d)) {
        if (e->d_name[0] == '.') continue;
        std::string comm = ReadWhole(std::string("/proc/self/task/") + e->d_name + "/comm");
        while (!comm.empty() && (comm.back() == '\n' || comm.back() == '\r')) comm.pop_back();
        if (comm == name) {
            found = std::atoi(e->d_name);
            break;
        }
    }
    closedir(d);
    return found;
}

bool AllowCpus(int tid, const std::vector<int>& cpus) {
    cpu_set_t set;
    CPU_ZERO(&set);
    for (int c : cpus) CPU_SET(c, &set);
    return sched_setaffinity(tid, sizeof(set), &set) == 0;
}

bool PinThread(int tid, int cpu) {
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(cpu, &set);
    return sched_setaffinity(tid, sizeof(set), &set) == 0;
}

std::vector<int> UsableCpus() {
    std::vector<int> cpus;
    cpu_set_t set;
    CPU_ZERO(&set);
    if (sched_getaffinity(0, sizeof(set), &set) != 0) return cpus;
    for (int c = 0; c < CPU_SETSIZE; ++c)
        if (CPU_ISSET(c, &set)) cpus.push_back(c);
    return cpus;
}

int64_t ResidentBytes() {
    long pages = 0, resident = 0;
    FILE* f = std::fopen("/proc/self/statm", "r");
    if (!f) return 0;
    if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    std::fclose(f);
    return static_cast<int64_t>(resident) * sysconf(_SC_PAGESIZE);
}

int64_t HeapInUseBytes() {
    struct mallinfo2 mi = mallinfo2();
    return static_cast<int64_t>(mi.uordblks + mi.hblkhd);
}

int64_t Percentile(std::vector<int64_t>& v, double p) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    size_t rank = static_cast<size_t>(std::ceil(p / 100.0 * static_cast<double>(v.size())));
    if (rank < 1) rank = 1;
    if (rank > v.size()) rank = v.size();
    return v[rank - 1];
}

ScratchDir::ScratchDir(const char* prefix) {
    const char* tmp = std::getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/" + prefix + "XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (mkdtemp(buf.data())) m_path = buf.data();
}

ScratchDir::~ScratchDir() {
    if (m_path.empty()) return;
    if (DIR* d = opendir(m_path.c_str())) {
        while (dirent* e = readdir(d)) {
            if (std::strcmp(e->d_name, ".") == 0 || std::strcmp(e->d_name, "..") == 0) continue;
            std::string p = m_path + "/" + e->d_name;
            if (std::remove(p.c_str()) != 0) {
                // A sub-directory (the library's cache): one more level.
                if (DIR* sub = opendir(p.c_str())) {
                    while (dirent* s = readdir(sub)) {
                        if (s->d_name[0] != '.') std::remove((p + "/" + s->d_name).c_str());
                    }
                    closedir(sub);
                }
                rmdir(p.c_str());
            }
        }
        closedir(d);
    }
    rmdir(m_path.c_str());
}

void ScratchDir::Write(const std::string& name, const std::string& text) const {
    std::ofstream out(m_path + "/" + name, std::ios::binary);
    out << text;
}

std::string Fmt(const char* format, ...) {
    char buf[512];
    va_list ap;
    va_start(ap, format);
    std::vsnprintf(buf, sizeof(buf), format, ap);
    va_end(ap);
    return buf;
}

}  // namespace orvex_bench
