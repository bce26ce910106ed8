// Test helpers for end-to-end tests that run programs: a child process,
// qxdc-sim on free ports, reading a whole file, waiting for a condition.
#ifndef ORVEX_TESTS_PROCESS_KIT_H
#define ORVEX_TESTS_PROCESS_KIT_H

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace orvex_test {

// A child process in the current directory; output to files.
class Child {
public:
    // `env`: NAME=VALUE settings for the child.
    Child(std::vector<std::string> args, const std::string& out, const std::string& err,
          std::vector<std::string> env = {}) {
        m_pid = fork();
        if (m_pid == 0) {
            if (!freopen(out.c_str(), "w", stdout) || !freopen(err.c_str(), "w", stderr)) _exit(126);
            for (std::string& e : env) putenv(&e[0]);
            std::vector<char*> argv;
            for (std::string& a : args) argv.push_back(&a[0]);
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
    }
    ~Child() {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
    }
    pid_t Pid() const { return m_pid; }
    // Sends a signal and waits; the exit status (128 + signal when killed).
    int Stop(int sig) {
        kill(m_pid, sig);
        return Wait();
    }
    int Wait() {
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }

private:
    pid_t m_pid = -1;
};

inline std::string Slurp(const std::string& path) {
    std::ifstream in(path);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

template <typename F>
bool WaitUntil(F ready, int timeoutMs) {
    for (int waited = 0; waited < timeoutMs; waited += 20) {
        if (ready()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return ready();
}

// qxdc-sim on free ports, in the current directory.
struct Sim {
    Sim(const std::string& binary, std::vector<std::string> options) {
        std::vector<std::string> args = {binary, "--port", "0", "--file-port", "0", "--ready-file", "sim.ready"};
        args.insert(args.end(), options.begin(), options.end());
        child.reset(new Child(args, "sim.out", "sim.log"));
        WaitUntil([] { return Slurp("sim.ready").find("file_port=") != std::string::npos; }, 5000);
        const std::string ready = Slurp("sim.ready");
        auto port = [&](const std::string& key) {
            const size_t at = ready.find(key + "=");
            return at == std::string::npos ? std::string("0") : ready.substr(at + key.size() + 1, ready.find('\n', at) - at - key.size() - 1);
        };
        front = "tcp://127.0.0.1:" + port("quote_port");
        fileFront = "ftp://127.0.0.1:" + port("file_port");
    }
    std::unique_ptr<Child> child;
    std::string front, fileFront;
};

}  // namespace orvex_test

#endif
