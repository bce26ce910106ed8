// Helpers shared by the fuzz targets.
//
// Every target runs inside a scratch directory of its own, because the
// library reads and writes files relative to the working directory
// (./cache/, ./qxmktaccess.xml, ...). PrepareRun() makes that directory and
// enters it; before that it turns the path arguments of the command line
// into absolute paths, so that corpus directories, reproducer files and the
// artifact prefix still mean what the caller meant. The directory is made
// under $TMPDIR, else /dev/shm, and removed at a normal exit. Call it from
// LLVMFuzzerInitialize, which sees the command line before the fuzzing
// engine (or the replay driver) reads it.
#ifndef ORVEX_FUZZ_SUPPORT_H
#define ORVEX_FUZZ_SUPPORT_H

#include <dirent.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <system_error>
#include <vector>

namespace orvex_fuzz {

inline std::string& ScratchDir() {
    static std::string dir;
    return dir;
}

inline void RemoveScratchDir() {
    if (ScratchDir().empty()) return;
    std::error_code ignored;
    std::filesystem::remove_all(ScratchDir(), ignored);
}

inline std::string Absolute(const std::string& cwd, const std::string& path) {
    if (path.empty() || path[0] == '/') return path;
    return cwd + "/" + path;
}

// Rewrites the command line (paths made absolute, an artifact prefix added
// when none is given), then creates and enters the scratch directory.
inline void PrepareRun(int* argc, char*** argv) {
    static std::vector<std::string> storage;
    static std::vector<char*> args;
    if (!ScratchDir().empty()) return;

    char cwdBuf[4096];
    const std::string cwd = getcwd(cwdBuf, sizeof cwdBuf) ? cwdBuf : ".";

    if (argc && argv && *argv) {
        bool hasPrefix = false;
        storage.clear();
        for (int i = 0; i < *argc; ++i) {
            std::string a = (*argv)[i] ? (*argv)[i] : "";
            if (i == 0) {
                storage.push_back(a);
                continue;
            }
            static const char* const kPathFlags[] = {"-artifact_prefix=", "-exact_artifact_path=", "-dict=",
                                                     "-merge_control_file=", "-features_dir="};
            bool flag = false;
            for (const char* f : kPathFlags) {
                const size_t n = std::strlen(f);
                if (a.compare(0, n, f) == 0) {
                    a = f + Absolute(cwd, a.substr(n));
                    if (std::strcmp(f, "-artifact_prefix=") == 0) hasPrefix = true;
                    flag = true;
                }
            }
            if (!flag && !a.empty() && a[0] != '-') a = Absolute(cwd, a);
            storage.push_back(a);
        }
        // Reproducers land where the run was started, not in the scratch
        // directory that is removed at exit.
        if (!hasPrefix) storage.insert(storage.begin() + 1, "-artifact_prefix=" + cwd + "/");
        args.clear();
        for (std::string& s : storage) args.push_back(&s[0]);
        args.push_back(nullptr);
        *argc = static_cast<int>(storage.size());
        *argv = args.data();
    }

    // Every input writes files, so a memory file system is much faster:
    // $TMPDIR when set, else /dev/shm when usable, else the system default.
    std::string base;
    if (const char* tmp = std::getenv("TMPDIR"); tmp && *tmp) {
        base = tmp;
    } else if (access("/dev/shm", W_OK | X_OK) == 0) {
        base = "/dev/shm";
    } else {
        std::error_code ec;
        base = std::filesystem::temp_directory_path(ec).string();
        if (ec || base.empty()) base = "/tmp";
    }
    std::string pattern = base + "/orvex_fuzz_XXXXXX";
    std::vector<char> buf(pattern.begin(), pattern.end());
    buf.push_back('\0');
    if (!mkdtemp(buf.data()) || chdir(buf.data()) != 0) {
        std::perror("scratch directory");
        std::abort();
    }
    ScratchDir() = buf.data();
    std::atexit(RemoveScratchDir);
}

// Writes bytes to a file (relative to the scratch directory).
inline void WriteFile(const char* path, const void* data, size_t size) {
    FILE* f = std::fopen(path, "wb");
    if (!f) {
        std::perror(path);
        std::abort();
    }
    if (size > 0 && std::fwrite(data, 1, size, f) != size) std::abort();
    std::fclose(f);
}

inline void WriteFile(const char* path, const std::string& text) { WriteFile(path, text.data(), text.size()); }

// Removes every entry of a directory (not the directory itself).
inline void EmptyDir(const char* dir) {
    DIR* d = opendir(dir);
    if (!d) return;
    std::vector<std::string> names;
    while (struct dirent* e = readdir(d)) {
        if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    }
    closedir(d);
    for (const std::string& n : names) {
        std::error_code ignored;
        std::filesystem::remove_all(std::string(dir) + "/" + n, ignored);
    }
}

// Reads every byte of a range so the sanitizers see a read past its end
// (one checked copy per piece; a byte loop would cost coverage callbacks).
inline unsigned Touch(const void* data, size_t size) {
    static unsigned char scratch[4096];
    const unsigned char* p = static_cast<const unsigned char*>(data);
    unsigned sum = static_cast<unsigned>(size);
    while (size > 0) {
        const size_t n = size < sizeof scratch ? size : sizeof scratch;
        std::memcpy(scratch, p, n);
        sum += scratch[0] + scratch[n - 1];
        p += n;
        size -= n;
    }
    return sum;
}

inline unsigned Touch(const std::string& s) { return Touch(s.data(), s.size()) + Touch(s.c_str(), s.size() + 1); }

// Keeps a value alive so the optimiser cannot drop the reads behind it.
template <class T>
inline void Keep(const T& v) {
    asm volatile("" : : "g"(&v) : "memory");
}

}  // namespace orvex_fuzz

#endif
