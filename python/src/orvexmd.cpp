// The Python binding of libOrvexMdUserApi: the API object, the callback
// object and the records, with the interface's own names.
//
// Records are Python objects that own a copy of the C record, so a record
// handed to a callback stays valid after it. Texts are read as GBK (bytes
// that do not decode are replaced) and written as GBK. Callbacks run on the
// library's threads with the GIL held only for the call; an exception in one
// is reported as Python reports unraisable exceptions and the library goes
// on. Release and the wait of Join run without the GIL.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <atomic>
#include <cfloat>
#include <chrono>
#include <cstddef>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include "OrvexWiraMdApi.h"
#include "OrvexWiraMdReplay.h"
#include "journal/JournalFormat.h"
#include "journal/JournalReader.h"

namespace py = pybind11;

namespace {

// ---- records ----

enum class Kind { Text, Int, Double, Char };

struct FieldInfo {
    const char* name;
    size_t offset;
    size_t size;
    Kind kind;
};

template <class T>
struct Record {
    T rec;
    Record() { std::memset(&rec, 0, sizeof(rec)); }
    explicit Record(const T& r) : rec(r) {}
};

// A character array is text; a lone char one character.
template <class M>
constexpr Kind KindOf() {
    if constexpr (std::is_array<M>::value) return Kind::Text;
    else if constexpr (std::is_same<M, int>::value) return Kind::Int;
    else if constexpr (std::is_same<M, double>::value) return Kind::Double;
    else return Kind::Char;
}

#define ORVEX_FIELD(T, f) FieldInfo{#f, offsetof(T, f), sizeof(T::f), KindOf<decltype(T::f)>()}

py::object Decode(const char* text, size_t width) {
    const size_t n = strnlen(text, width);
    return py::bytes(text, n).attr("decode")("gbk", "replace");
}

py::object GetField(const char* base, const FieldInfo& f) {
    const char* p = base + f.offset;
    switch (f.kind) {
        case Kind::Int: {
            int v;
            std::memcpy(&v, p, sizeof v);
            return py::int_(v);
        }
        case Kind::Double: {
            double v;
            std::memcpy(&v, p, sizeof v);
            return py::float_(v);
        }
        case Kind::Char:
            return p[0] ? Decode(p, 1) : py::str("");
        case Kind::Text:
            return Decode(p, f.size);
    }
    return py::none();
}

void SetField(char* base, const FieldInfo& f, const py::object& value) {
    char* p = base + f.offset;
    switch (f.kind) {
        case Kind::Int: {
            const int v = value.cast<int>();
            std::memcpy(p, &v, sizeof v);
            return;
        }
        case Kind::Double: {
            const double v = value.cast<double>();
            std::memcpy(p, &v, sizeof v);
            return;
        }
        case Kind::Char:
        case Kind::Text: {
            std::string bytes;
            if (py::isinstance<py::bytes>(value)) bytes = value.cast<std::string>();
            else bytes = py::str(value).attr("encode")("gbk", "replace").cast<std::string>();
            const size_t room = f.kind == Kind::Char ? 1 : f.size - 1;
            if (bytes.size() > room) throw py::value_error(std::string(f.name) + ": at most " + std::to_string(room) +
                                                           " bytes");
            std::memset(p, 0, f.size);
            std::memcpy(p, bytes.data(), bytes.size());
            return;
        }
    }
}

template <class T>
void BindRecord(py::module_& m, const char* name, std::vector<FieldInfo> fields, const char* doc) {
    auto shared = std::make_shared<std::vector<FieldInfo>>(std::move(fields));
    py::class_<Record<T>> cls(m, name, doc);
    cls.def(py::init([shared](py::kwargs kwargs) {
                Record<T> r;
                for (auto item : kwargs) {
                    const std::string key = py::str(item.first);
                    const FieldInfo* found = nullptr;
                    for (const FieldInfo& f : *shared)
                        if (key == f.name) found = &f;
                    if (!found) throw py::type_error("no field " + key);
                    SetField(reinterpret_cast<char*>(&r.rec), *found, py::reinterpret_borrow<py::object>(item.second));
                }
                return r;
            }),
            "A zeroed record; keyword arguments set fields by their C names.");
    for (const FieldInfo& f : *shared) {
        cls.def_property(
            f.name, [f](const Record<T>& r) { return GetField(reinterpret_cast<const char*>(&r.rec), f); },
            [f](Record<T>& r, py::object v) { SetField(reinterpret_cast<char*>(&r.rec), f, v); });
    }
    cls.def_property_readonly(
        "raw", [](const Record<T>& r) { return py::bytes(reinterpret_cast<const char*>(&r.rec), sizeof(T)); },
        "The record's exact bytes.");
    cls.def_static(
        "from_raw",
        [name](const py::object& data) {
            // bytes as they are; bytearray, memoryview and other buffers
            // through bytes().
            py::object b = data;
            if (!PyBytes_Check(data.ptr())) {
                b = py::reinterpret_steal<py::object>(PyBytes_FromObject(data.ptr()));
                if (!b) throw py::error_already_set();
            }
            char* p = nullptr;
            Py_ssize_t n = 0;
            if (PyBytes_AsStringAndSize(b.ptr(), &p, &n) != 0) throw py::error_already_set();
            if (static_cast<size_t>(n) != sizeof(T))
                throw py::value_error(std::string(name) + ".from_raw: " + std::to_string(sizeof(T)) +
                                      " bytes needed, got " + std::to_string(n));
            Record<T> r;
            std::memcpy(&r.rec, p, sizeof(T));
            return r;
        },
        py::arg("raw"),
        "The record of these exact bytes (bytes or any bytes-like object); ValueError unless there are "
        "exactly ``size`` of them.");
    cls.def("to_dict", [shared](const Record<T>& r) {
        py::dict d;
        for (const FieldInfo& f : *shared) d[f.name] = GetField(reinterpret_cast<const char*>(&r.rec), f);
        return d;
    });
    cls.def("__repr__", [shared, name](const Record<T>& r) {
        py::object self = py::cast(r);
        py::object dict = self.attr("to_dict")();
        return std::string(name) + "(" + std::string(py::repr(dict)) + ")";
    });
    cls.def_static("fields", [shared] {
        py::list out;
        for (const FieldInfo& f : *shared) {
            const char* kind = f.kind == Kind::Int ? "int" : f.kind == Kind::Double ? "double"
                               : f.kind == Kind::Char ? "char" : "text";
            out.append(py::make_tuple(f.name, f.offset, f.size, kind));
        }
        return out;
    }, "(name, offset, size, kind) of every field, in record order.");
    cls.attr("size") = sizeof(T);
}

using Depth = COrvexWiraDepthMarketDataField;
using Instrument = COrvexWiraInstrumentField;
using Login = COrvexWiraRspUserLoginField;
using Info = COrvexWiraRspInfoField;
using Status = COrvexWiraMarketStatusField;
using LoginReq = COrvexWiraReqUserLoginField;
using Query = COrvexWiraQryInstrumentField;

// ---- callbacks ----

// Set while this thread runs a Python callback of the library.
thread_local bool t_inCallback = false;

class PySpi : public COrvexWiraMdSpi {
public:
    void OnFrontLinked() override { Call("OnFrontLinked", [] { return py::make_tuple(); }); }
    void OnFrontLost(int reason) override { Call("OnFrontLost", [&] { return py::make_tuple(reason); }); }
    void OnLoginAnswer(Login* login, Info* info, int requestId, bool isLast) override {
        Call("OnLoginAnswer", [&] { return py::make_tuple(Wrap(login), Wrap(info), requestId, isLast); });
    }
    void OnDepthMarketData(Depth* md) override { Call("OnDepthMarketData", [&] { return py::make_tuple(Wrap(md)); }); }
    void OnStatusChange(Status* status) override {
        Call("OnStatusChange", [&] { return py::make_tuple(Wrap(status)); });
    }
    void OnInstrumentAnswer(Instrument* inst, Info* info, int requestId, bool isLast) override {
        Call("OnInstrumentAnswer", [&] { return py::make_tuple(Wrap(inst), Wrap(info), requestId, isLast); });
    }
    // The record's bytes, as many as the Python side says the package has
    // (set_template_sizes); none when it does not know the package.
    void OnTemplateData(unsigned short packageId, void* data) override {
        Call("OnTemplateData", [&] {
            size_t size = 0;
            {
                std::lock_guard<std::mutex> lock(m_sizesLock);
                if (packageId < m_sizes.size()) size = m_sizes[packageId];
            }
            return py::make_tuple(packageId, data && size ? py::bytes(static_cast<const char*>(data), size)
                                                          : py::bytes());
        });
    }

    void SetTemplateSizes(const py::dict& sizes) {
        std::vector<size_t> v;
        for (auto item : sizes) {
            const int id = item.first.cast<int>();
            if (id < 0 || id > 0xFFFF) continue;
            if (v.size() <= static_cast<size_t>(id)) v.resize(static_cast<size_t>(id) + 1, 0);
            v[static_cast<size_t>(id)] = item.second.cast<size_t>();
        }
        std::lock_guard<std::mutex> lock(m_sizesLock);
        m_sizes.swap(v);
    }

private:
    template <class T>
    static py::object Wrap(T* rec) {
        return rec ? py::cast(Record<T>(*rec)) : py::none();
    }

    template <class Args>
    void Call(const char* name, Args args) {
        if (!Py_IsInitialized()) return;
        py::gil_scoped_acquire gil;
        // The library's thread keeps its Python thread state from its first
        // callback on: making and dropping one per call would cost more than
        // the call.
        thread_local bool kept = false;
        if (!kept) {
            gil.inc_ref();
            kept = true;
        }
        py::function f = py::get_override(static_cast<const PySpi*>(this), name);
        if (!f) return;
        const bool outer = t_inCallback;
        t_inCallback = true;
        try {
            f(*args());
        } catch (py::error_already_set& e) {
            // Reported like an exception in a __del__: on standard error, or
            // to sys.unraisablehook. The library's thread goes on.
            e.discard_as_unraisable(py::str(std::string("orvexmd.MdSpi.") + name));
        } catch (const std::exception& e) {
            PyErr_SetString(PyExc_RuntimeError, e.what());
            PyErr_WriteUnraisable(py::str(name).ptr());
        }
        t_inCallback = outer;
    }

    std::mutex m_sizesLock;
    std::vector<size_t> m_sizes;
};

// ---- the API object ----

class PyApi {
public:
    // The library's API object, or with a journal the replay library's
    // (CreateWiraReplayApi(journal, speed)).
    PyApi(const std::string& flowPath, bool deliverSnapshot, py::object journal, double speed) {
        if (journal.is_none()) {
            m_api = CreateWiraMdApi(flowPath.c_str(), false, false, deliverSnapshot);
            if (!m_api) throw std::runtime_error("CreateWiraMdApi failed");
            return;
        }
        const std::string path = py::str(journal);
        std::string error;
        std::vector<std::string> files = orvex::journal::JournalFiles(path, &error);
        for (const std::string& f : files) {
            orvex::journal::JournalReader r;
            if (!r.Open(f, &error)) break;
            error.clear();
        }
        if (!error.empty()) throw std::runtime_error(error);
        if (!(speed >= 0)) throw py::value_error("speed must be 0 (as fast as possible) or more");
        m_api = CreateWiraReplayApi(path.c_str(), speed);
        if (!m_api) throw std::runtime_error("CreateWiraReplayApi failed for " + path);
        m_replay = true;
    }
    ~PyApi() {
        if (!m_api) return;
        try {
            py::gil_scoped_release nogil;
            ReleaseNow();
        } catch (...) {
        }
    }

    void RegisterSpi(py::object spi) {
        COrvexWiraMdApi* api = Api();
        PySpi* p = spi.is_none() ? nullptr : spi.cast<PySpi*>();
        api->RegisterSpi(p);
        m_spi = spi;   // kept alive while the library may call it
    }
    void RegisterFront(const std::string& address) {
        std::string copy = address;
        Api()->RegisterFront(&copy[0]);
    }
    void Init() {
        COrvexWiraMdApi* api = Api();
        api->Init();
        // A replay ends by itself: its Join returns at the end of the
        // journal. It is waited for on a thread of its own so that the
        // Python side can wait in slices.
        if (m_replay && !m_joiner.joinable())
            m_joiner = std::thread([this, api] {
                api->Join();
                m_ended = true;
            });
    }
    const char* GetTradingDay() { return Api()->GetTradingDay(); }
    int ReqUserLogin(Record<LoginReq>& req, int requestId) { return Api()->ReqUserLogin(&req.rec, requestId); }
    int ReqQryInstrument(Record<Query>& query, int requestId) { return Api()->ReqQryInstrument(&query.rec, requestId); }
    int SubscribeMarketData(const std::vector<std::string>& ids) { return Ids(ids, true); }
    int UnSubscribeMarketData(const std::vector<std::string>& ids) { return Ids(ids, false); }

    // Waits until the object is released (by another thread); Ctrl-C
    // (KeyboardInterrupt) and other signals reach the caller meanwhile.
    int Join() {
        Api();
        while (!m_released.load() && !m_ended.load()) {
            {
                py::gil_scoped_release nogil;
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            }
            if (PyErr_CheckSignals() != 0) throw py::error_already_set();
        }
        return 0;
    }

    void Release() {
        if (t_inCallback) throw std::runtime_error("Release may not be called from inside a callback of the library");
        if (!m_api) return;
        {
            py::gil_scoped_release nogil;
            ReleaseNow();
        }
        m_spi = py::none();
    }
    bool Released() const { return m_api == nullptr; }

private:
    COrvexWiraMdApi* Api() {
        if (!m_api) throw std::runtime_error("the API object has been released");
        return m_api;
    }
    void ReleaseNow() {
        std::lock_guard<std::mutex> lock(m_releaseLock);
        if (!m_api) return;
        m_api->Release();   // callbacks in flight finish: they take the GIL we let go
        if (m_joiner.joinable()) m_joiner.join();
        m_api = nullptr;
        m_released = true;
    }
    int Ids(const std::vector<std::string>& ids, bool subscribe) {
        COrvexWiraMdApi* api = Api();
        std::vector<std::string> copies = ids;
        std::vector<char*> p;
        for (std::string& s : copies) p.push_back(&s[0]);
        const int n = static_cast<int>(p.size());
        return subscribe ? api->SubscribeMarketData(p.data(), n) : api->UnSubscribeMarketData(p.data(), n);
    }

    COrvexWiraMdApi* m_api = nullptr;
    bool m_replay = false;
    std::thread m_joiner;
    std::atomic<bool> m_ended{false};
    std::mutex m_releaseLock;
    std::atomic<bool> m_released{false};
    py::object m_spi = py::none();
};

// ---- journals ----

namespace jr = orvex::journal;

// The entries of a journal file or directory: depth records straight into a
// NumPy array of `dtype` (the record at offset 0, the receive time as int64
// at offset 408), the other kinds as lists. The files are walked without
// the GIL; Python objects are made only for the other kinds.
py::dict ReadJournal(const std::string& path, py::dtype dtype) {
    if (dtype.itemsize() != static_cast<py::ssize_t>(sizeof(Depth) + 8))
        throw py::value_error("the dtype must be 416 bytes: the depth record and the receive time");
    std::string error;
    const std::vector<std::string> files = jr::JournalFiles(path, &error);
    if (files.empty()) throw std::runtime_error(error);
    std::vector<std::unique_ptr<jr::JournalReader>> readers;
    uint64_t bound = 0;
    for (const std::string& f : files) {
        auto r = std::make_unique<jr::JournalReader>();
        if (!r->Open(f, &error)) throw std::runtime_error(error);
        bound += r->DepthRecordsAtMost();
        readers.push_back(std::move(r));
    }
    py::array depth(dtype, std::vector<py::ssize_t>{static_cast<py::ssize_t>(bound)});
    char* out = static_cast<char*>(depth.mutable_data());
    struct Other {
        uint16_t kind, aux;
        int64_t time;
        std::string payload;
    };
    std::vector<Other> others;
    size_t n = 0;
    uint64_t torn = 0;
    {
        py::gil_scoped_release nogil;
        for (auto& r : readers) {
            jr::Entry e;
            while (r->Next(&e)) {
                if (e.kind == jr::kDepth && e.size == sizeof(Depth) && n < bound) {
                    char* row = out + n * (sizeof(Depth) + 8);
                    std::memcpy(row, e.payload, sizeof(Depth));
                    std::memcpy(row + sizeof(Depth), &e.time, 8);
                    ++n;
                } else if (e.kind != jr::kDepth) {
                    others.push_back({e.kind, e.aux, e.time, std::string(reinterpret_cast<const char*>(e.payload), e.size)});
                }
            }
            torn += r->Torn();
        }
    }
    py::list status, instrument, login, templ, linked, lost, templates;
    for (const Other& o : others) {
        const unsigned char* p = reinterpret_cast<const unsigned char*>(o.payload.data());
        switch (o.kind) {
            case jr::kStatus:
                if (o.payload.size() == sizeof(Status)) {
                    Status st;
                    std::memcpy(&st, p, sizeof(st));
                    status.append(py::make_tuple(o.time, Record<Status>(st)));
                }
                break;
            case jr::kInstrument:
            case jr::kLogin: {
                const bool isInst = o.kind == jr::kInstrument;
                const size_t recSize = isInst ? sizeof(Instrument) : sizeof(Login);
                if (o.payload.size() != jr::kAnswerHead + recSize + sizeof(Info)) break;
                int32_t id;
                std::memcpy(&id, p, 4);
                const uint8_t flags = p[4];
                py::object rec = py::none(), info = py::none();
                if (flags & jr::kHasRecord) {
                    if (isInst) {
                        Instrument r;
                        std::memcpy(&r, p + jr::kAnswerHead, sizeof(r));
                        rec = py::cast(Record<Instrument>(r));
                    } else {
                        Login r;
                        std::memcpy(&r, p + jr::kAnswerHead, sizeof(r));
                        rec = py::cast(Record<Login>(r));
                    }
                }
                if (flags & jr::kHasInfo) {
                    Info r;
                    std::memcpy(&r, p + jr::kAnswerHead + recSize, sizeof(r));
                    info = py::cast(Record<Info>(r));
                }
                (isInst ? instrument : login).append(py::make_tuple(o.time, rec, info, id, (flags & jr::kIsLast) != 0));
                break;
            }
            case jr::kTemplate: templ.append(py::make_tuple(o.time, o.aux, py::bytes(o.payload))); break;
            case jr::kLinked: linked.append(o.time); break;
            case jr::kLost: {
                int32_t reason = 0;
                if (o.payload.size() >= 4) std::memcpy(&reason, p, 4);
                lost.append(py::make_tuple(o.time, reason));
                break;
            }
            case jr::kTemplates: templates.append(py::str(o.payload)); break;
            default: break;
        }
    }
    py::dict result;
    result["depth"] = depth[py::slice(0, static_cast<py::ssize_t>(n), 1)];
    result["status"] = status;
    result["instrument"] = instrument;
    result["login"] = login;
    result["template"] = templ;
    result["linked"] = linked;
    result["lost"] = lost;
    result["templates"] = templates;
    result["torn"] = torn;
    result["files"] = files;
    return result;
}

}  // namespace

PYBIND11_MODULE(_orvexmd, m) {
    m.doc() = "libOrvexMdUserApi from Python";
    m.attr("DBL_MAX") = DBL_MAX;

    BindRecord<Depth>(m, "DepthMarketDataField",
                      {ORVEX_FIELD(Depth, TradingDay), ORVEX_FIELD(Depth, InstrumentID), ORVEX_FIELD(Depth, ExchangeID),
                       ORVEX_FIELD(Depth, ExchangeInstID), ORVEX_FIELD(Depth, LastPrice),
                       ORVEX_FIELD(Depth, PreSettlementPrice), ORVEX_FIELD(Depth, PreClosePrice),
                       ORVEX_FIELD(Depth, PreOpenInterest), ORVEX_FIELD(Depth, OpenPrice),
                       ORVEX_FIELD(Depth, HighestPrice), ORVEX_FIELD(Depth, LowestPrice), ORVEX_FIELD(Depth, Volume),
                       ORVEX_FIELD(Depth, Turnover), ORVEX_FIELD(Depth, OpenInterest), ORVEX_FIELD(Depth, ClosePrice),
                       ORVEX_FIELD(Depth, SettlementPrice), ORVEX_FIELD(Depth, UpperLimitPrice),
                       ORVEX_FIELD(Depth, LowerLimitPrice), ORVEX_FIELD(Depth, PreDelta), ORVEX_FIELD(Depth, CurrDelta),
                       ORVEX_FIELD(Depth, UpdateTime), ORVEX_FIELD(Depth, UpdateMillisec),
                       ORVEX_FIELD(Depth, BidPrice1), ORVEX_FIELD(Depth, BidVolume1), ORVEX_FIELD(Depth, AskPrice1),
                       ORVEX_FIELD(Depth, AskVolume1), ORVEX_FIELD(Depth, BidPrice2), ORVEX_FIELD(Depth, BidVolume2),
                       ORVEX_FIELD(Depth, AskPrice2), ORVEX_FIELD(Depth, AskVolume2), ORVEX_FIELD(Depth, BidPrice3),
                       ORVEX_FIELD(Depth, BidVolume3), ORVEX_FIELD(Depth, AskPrice3), ORVEX_FIELD(Depth, AskVolume3),
                       ORVEX_FIELD(Depth, BidPrice4), ORVEX_FIELD(Depth, BidVolume4), ORVEX_FIELD(Depth, AskPrice4),
                       ORVEX_FIELD(Depth, AskVolume4), ORVEX_FIELD(Depth, BidPrice5), ORVEX_FIELD(Depth, BidVolume5),
                       ORVEX_FIELD(Depth, AskPrice5), ORVEX_FIELD(Depth, AskVolume5), ORVEX_FIELD(Depth, AveragePrice),
                       ORVEX_FIELD(Depth, ActionDay)},
                      "Depth market data (408 bytes); an empty price is DBL_MAX.");
    BindRecord<Instrument>(m, "InstrumentField",
                           {ORVEX_FIELD(Instrument, InstrumentID), ORVEX_FIELD(Instrument, ExchangeID),
                            ORVEX_FIELD(Instrument, InstrumentName), ORVEX_FIELD(Instrument, ExchangeInstID),
                            ORVEX_FIELD(Instrument, Reserved1), ORVEX_FIELD(Instrument, VolumeMultiple),
                            ORVEX_FIELD(Instrument, Number13), ORVEX_FIELD(Instrument, Reserved2),
                            ORVEX_FIELD(Instrument, Text4), ORVEX_FIELD(Instrument, Text5),
                            ORVEX_FIELD(Instrument, Text2017), ORVEX_FIELD(Instrument, Text2018),
                            ORVEX_FIELD(Instrument, Reserved3)},
                           "An instrument of a query answer.");
    BindRecord<Login>(m, "RspUserLoginField",
                      {ORVEX_FIELD(Login, TradingDay), ORVEX_FIELD(Login, LoginTime), ORVEX_FIELD(Login, BrokerID),
                       ORVEX_FIELD(Login, UserID), ORVEX_FIELD(Login, SystemName), ORVEX_FIELD(Login, FrontID),
                       ORVEX_FIELD(Login, LinkID), ORVEX_FIELD(Login, MaxOrderRef), ORVEX_FIELD(Login, SHFETime),
                       ORVEX_FIELD(Login, DCETime), ORVEX_FIELD(Login, CZCETime), ORVEX_FIELD(Login, FFEXTime)},
                      "The login answer.");
    BindRecord<Info>(m, "RspInfoField", {ORVEX_FIELD(Info, ErrorID), ORVEX_FIELD(Info, ErrorMsg)},
                     "Result of a request: ErrorID 0 is success.");
    BindRecord<Status>(m, "MarketStatusField",
                       {ORVEX_FIELD(Status, ExchangeID), ORVEX_FIELD(Status, TradingDay),
                        ORVEX_FIELD(Status, SecondDay), ORVEX_FIELD(Status, UpdateTime),
                        ORVEX_FIELD(Status, MarketStatus)},
                       "A market status report.");
    BindRecord<LoginReq>(m, "ReqUserLoginField",
                         {ORVEX_FIELD(LoginReq, TradingDay), ORVEX_FIELD(LoginReq, BrokerID),
                          ORVEX_FIELD(LoginReq, UserID), ORVEX_FIELD(LoginReq, Password),
                          ORVEX_FIELD(LoginReq, Reserved)},
                         "A login request.");
    BindRecord<Query>(m, "QryInstrumentField",
                      {ORVEX_FIELD(Query, InstrumentID), ORVEX_FIELD(Query, ExchangeID),
                       ORVEX_FIELD(Query, ExchangeInstID), ORVEX_FIELD(Query, ProductID)},
                      "An instrument query; only ExchangeID narrows the answer.");

    py::class_<PySpi>(m, "MdSpi",
                      "Subclass it, call super().__init__(), and override the callbacks you want; they run on the "
                      "library's thread.")
        .def(py::init<>())
        .def("OnFrontLinked", [](PySpi&) {})
        .def("OnFrontLost", [](PySpi&, int) {})
        .def("OnLoginAnswer", [](PySpi&, py::object, py::object, int, bool) {})
        .def("OnDepthMarketData", [](PySpi&, py::object) {})
        .def("OnStatusChange", [](PySpi&, py::object) {})
        .def("OnInstrumentAnswer", [](PySpi&, py::object, py::object, int, bool) {})
        .def("OnTemplateData", [](PySpi&, int, py::bytes) {})
        .def("_set_template_sizes", &PySpi::SetTemplateSizes);

    py::class_<PyApi>(m, "_MdApi")
        .def(py::init<const std::string&, bool, py::object, double>(), py::arg("flow_path") = "",
             py::arg("deliver_snapshot") = true, py::arg("journal") = py::none(), py::arg("speed") = 0.0)
        .def("RegisterSpi", &PyApi::RegisterSpi)
        .def("RegisterFront", &PyApi::RegisterFront)
        .def("Init", &PyApi::Init)
        .def("Join", &PyApi::Join)
        .def("Release", &PyApi::Release)
        .def("GetTradingDay", &PyApi::GetTradingDay)
        .def("ReqUserLogin", &PyApi::ReqUserLogin)
        .def("SubscribeMarketData", &PyApi::SubscribeMarketData)
        .def("UnSubscribeMarketData", &PyApi::UnSubscribeMarketData)
        .def("ReqQryInstrument", &PyApi::ReqQryInstrument)
        .def_property_readonly("released", &PyApi::Released);

    m.def("_read_journal", &ReadJournal, py::arg("path"), py::arg("dtype"));
    m.def("_read_journal_templates", [](const std::string& path) {
        // The template files a journal carries (each file starts with one).
        std::vector<std::string> texts, none;
        std::string error;
        for (const std::string& f : jr::JournalFiles(path, &error)) {
            jr::JournalReader r;
            if (!r.Open(f, &error)) return none;
            jr::Entry e;
            while (r.Next(&e)) {
                if (e.kind != jr::kTemplates) continue;
                texts.emplace_back(reinterpret_cast<const char*>(e.payload), e.size);
                break;
            }
        }
        return texts;
    });
}
