// Test helpers shared by the DC tests: a callback object that records every
// call (thread-safe, records copied), and a scratch working directory.
#ifndef ORVEX_TESTS_RECORDING_SPI_H
#define ORVEX_TESTS_RECORDING_SPI_H

#include <climits>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include <unistd.h>

#include "api/OrvexWiraMdApi.h"
#include "codec/DataPackage.h"
#include "support/FakeQuoteServer.h"

namespace orvex_test {

struct LoginAnswer {
    COrvexWiraRspUserLoginField rsp;
    COrvexWiraRspInfoField info;
    int requestId;
    bool isLast;
};

struct InstrumentAnswer {
    bool hasRecord;
    COrvexWiraInstrumentField rec;
    COrvexWiraRspInfoField info;
    int requestId;
    bool isLast;
};

class RecordingSpi : public COrvexWiraMdSpi {
public:
    void OnFrontLinked() override { Add("linked"); }
    void OnFrontLost(int reason) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            lost.push_back(reason);
        }
        Add("lost:" + std::to_string(reason));
    }
    void OnLoginAnswer(COrvexWiraRspUserLoginField* rsp, COrvexWiraRspInfoField* info, int id, bool last) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            logins.push_back({*rsp, *info, id, last});
        }
        Add("login:" + std::to_string(info->ErrorID));
    }
    void OnInstrumentAnswer(COrvexWiraInstrumentField* rec, COrvexWiraRspInfoField* info, int id,
                            bool last) override {
        InstrumentAnswer a{};
        a.hasRecord = rec != nullptr;
        if (rec) a.rec = *rec;
        a.info = *info;
        a.requestId = id;
        a.isLast = last;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            instruments.push_back(a);
        }
        Add("instrument");
    }
    void OnDepthMarketData(COrvexWiraDepthMarketDataField* d) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            depths.push_back(*d);
        }
        Add(std::string("depth:") + d->InstrumentID);
    }
    void OnStatusChange(COrvexWiraMarketStatusField* s) override {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            statuses.push_back(*s);
        }
        Add(std::string("status:") + s->ExchangeID + ":" + s->MarketStatus);
    }

    // A template record: its bytes, as many as the package's template lays
    // out.
    void OnTemplateData(unsigned short id, void* data) override {
        const CQxDataPackage* tmpl = FindPackageTemplate(id);
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            templates.push_back({id, tmpl && data ? std::string(static_cast<const char*>(data), tmpl->size) : ""});
        }
        Add("template:" + std::to_string(id));
    }

    // Runs inside the next callback of the given kind (on the worker).
    std::function<void()> onLinked;

    std::vector<std::string> Events() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return events;
    }
    int Count(const std::string& event) {
        std::lock_guard<std::mutex> lock(m_mutex);
        int n = 0;
        for (const std::string& e : events) n += e == event ? 1 : 0;
        return n;
    }
    bool WaitFor(const std::string& event, int times = 1, int timeoutMs = 3000) {
        return WaitUntil([&] { return Count(event) >= times; }, timeoutMs);
    }
    template <class T>
    std::vector<T> Copy(const std::vector<T>& v) {
        std::lock_guard<std::mutex> lock(m_mutex);
        return v;
    }

    std::mutex m_mutex;
    std::vector<std::string> events;
    std::vector<int> lost;
    std::vector<LoginAnswer> logins;
    std::vector<InstrumentAnswer> instruments;
    std::vector<COrvexWiraDepthMarketDataField> depths;
    std::vector<COrvexWiraMarketStatusField> statuses;
    struct TemplateRecord {
        unsigned short id;
        std::string bytes;
    };
    std::vector<TemplateRecord> templates;

private:
    void Add(const std::string& e) {
        std::function<void()> hook;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            events.push_back(e);
            if (e == "linked") hook = onLinked;
        }
        if (hook) hook();
    }
};

// Makes a fresh directory under the system's temp dir and switches the
// working directory into it; restores and removes it at the end. The
// library reads and writes its files relative to the working directory.
class ScopedTempDir {
public:
    ScopedTempDir() {
        char cwd[PATH_MAX];
        if (getcwd(cwd, sizeof(cwd))) m_old = cwd;
        char tmpl[] = "/tmp/orvex-test-XXXXXX";
        const char* made = mkdtemp(tmpl);
        m_path = made ? made : "/tmp";
        if (chdir(m_path.c_str()) != 0) m_path.clear();
    }
    ~ScopedTempDir() {
        if (!m_old.empty() && chdir(m_old.c_str()) != 0) return;
        if (!m_path.empty() && m_path != "/tmp") {
            std::string cmd = "rm -rf '" + m_path + "'";
            int rc = std::system(cmd.c_str());
            (void)rc;
        }
    }
    ScopedTempDir(const ScopedTempDir&) = delete;
    ScopedTempDir& operator=(const ScopedTempDir&) = delete;
    const std::string& Path() const { return m_path; }
    // Writes a file (relative to the scratch directory).
    static void Write(const std::string& name, const std::string& text) {
        FILE* f = fopen(name.c_str(), "wb");
        if (!f) return;
        fwrite(text.data(), 1, text.size(), f);
        fclose(f);
    }

private:
    std::string m_old;
    std::string m_path;
};

}  // namespace orvex_test

#endif
