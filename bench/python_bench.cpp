// _orvexbench: what the Python benchmark needs from the C++ benchmarks, for
// Python: the blaster (a quote server streaming stamped rows), its clock,
// and a C++ client of the library to run beside the Python one.
#include <pybind11/pybind11.h>

#include <memory>
#include <string>

#include "BenchMarket.h"
#include "BenchUtil.h"
#include "Blaster.h"
#include "LibraryClient.h"
#include "Receivers.h"

namespace py = pybind11;
using namespace orvex_bench;

namespace {

py::dict Result(const StreamResult& r) {
    py::dict d;
    d["rows"] = r.rows;
    d["start_ns"] = r.startNs;
    d["end_ns"] = r.endNs;
    d["broken"] = r.broken;
    return d;
}

class PyBlaster {
public:
    explicit PyBlaster(int instruments) : m_stream(Catalog(instruments)), m_blaster(Catalog(instruments)) {}
    std::string Front() const { return m_blaster.Front(); }
    bool WaitSubscribed(int timeoutMs) {
        py::gil_scoped_release nogil;
        return m_blaster.WaitSubscribed(timeoutMs);
    }
    py::dict Stream(double rate, double seconds, uint64_t maxRows, uint64_t firstSeq) {
        StreamResult r;
        {
            py::gil_scoped_release nogil;
            r = m_blaster.Stream(m_stream, rate, seconds, maxRows, firstSeq);
        }
        return Result(r);
    }
    py::dict StreamPaced(int64_t tickNs, int rowsPerTick, double seconds, uint64_t firstSeq) {
        StreamResult r;
        {
            py::gil_scoped_release nogil;
            r = m_blaster.StreamPaced(m_stream, tickNs, rowsPerTick, seconds, firstSeq);
        }
        return Result(r);
    }

private:
    static BenchCatalog Catalog(int instruments) {
        BenchCatalog cat;
        cat.instruments = instruments;
        return cat;
    }
    PushStream m_stream;
    Blaster m_blaster;
};

// The library with a C++ callback that records each row's latency.
class PyCppClient {
public:
    explicit PyCppClient(const std::string& front) : m_client(front, false) {
        m_client.spi.recorder = &m_recorder;
        m_client.Init();
    }
    bool LogIn(int timeoutMs) {
        py::gil_scoped_release nogil;
        if (!WaitUntil([&] { return m_client.spi.linked.load() > 0; }, timeoutMs)) return false;
        m_client.Login();
        return WaitUntil([&] { return m_client.spi.completedAt.load() != 0; }, timeoutMs);
    }
    void Arm(uint64_t firstSeq, uint64_t capacity) { m_recorder.Arm(firstSeq, capacity); }
    py::dict Finish(uint64_t rows) {
        {
            py::gil_scoped_release nogil;
            m_recorder.WaitFor(rows, 3000);
            m_recorder.Disarm();
        }
        py::dict d;
        const LatencySummary s = m_recorder.Summarize();
        d["delivered"] = m_recorder.Count();
        d["last_ns"] = m_recorder.LastAt();
        d["p50_ns"] = s.p50;
        d["p99_ns"] = s.p99;
        d["max_ns"] = s.max;
        return d;
    }

private:
    DeliveryRecorder m_recorder;
    LibraryClient m_client;
};

}  // namespace

PYBIND11_MODULE(_orvexbench, m) {
    m.def("now_ns", &NowNs, "The clock the blaster stamps rows with.");
    py::class_<PyBlaster>(m, "Blaster")
        .def(py::init<int>(), py::arg("instruments") = 1000)
        .def_property_readonly("front", &PyBlaster::Front)
        .def("wait_subscribed", &PyBlaster::WaitSubscribed)
        .def("stream", &PyBlaster::Stream)
        .def("stream_paced", &PyBlaster::StreamPaced);
    py::class_<PyCppClient>(m, "CppClient")
        .def(py::init<const std::string&>())
        .def("log_in", &PyCppClient::LogIn)
        .def("arm", &PyCppClient::Arm)
        .def("finish", &PyCppClient::Finish);
}
