// tarvik.CAN: the handle-based CAN client with its receive queues, its callbacks re-entering
// Python from the receive thread, and the CANopen master services.
#include "PyTarvikCAN.h"

#include "tarvik/clients/TarvikClientCANDll.h"
#include "tarvik/protocol/TarvikProtocolCAN.h"

#include <pybind11/stl.h>

#include <Python.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <set>
#include <vector>

using namespace pybind11::literals;

namespace
{

constexpr int kMaxBuffer = 255; // CANopenGetUndefined copies up to 255 bytes
// The gateway's device results of the CANopen services.
constexpr int kResultNodeSilent = 0x0002FC;
constexpr int kResultAborted = 0x0002FD;
constexpr int kResultModeOff = 0x0002FE;

// Runs a CANopen service with the GIL released and raises its failure in CANopen's terms:
// the mode that is off (and how to switch it on), the node that does not answer, or the
// node's abort code (read from *abortCode once fn has run) as SdoAbortError.
template <class Fn> void CanOpenCall(Fn fn, int node = -1, const unsigned int* abortCode = nullptr)
{
    int result;
    {
        py::gil_scoped_release release;
        result = fn();
    }
    if (result == 0)
        return;
    if (result == kResultModeOff)
        PyTarvikRaise(result, "CANopen mode is off on this gateway; switch it on with canopen_set_config(1)");
    if (result == kResultNodeSilent && node >= 0)
        PyTarvikRaise(result, "node " + std::to_string(node) +
                                  " does not answer (no such node on the bus, or it is stopped or unpowered)");
    if (result == kResultAborted && abortCode != nullptr && *abortCode != 0)
        PyTarvikRaiseSdoAbort(result, *abortCode, CTarvikClientCAN::GetSDOAbortText(*abortCode), node);
    PyTarvikCheck(result);
}

class CPyCAN;

// The clients alive, for stopping them all before the interpreter goes away: a receive
// thread must not try to take the GIL of a finalizing interpreter.
std::mutex s_oLiveMutex;
std::set<CPyCAN*> s_apLive;

// Timeouts given in seconds (None = wait for ever would block close(): None polls once).
std::chrono::steady_clock::time_point Deadline(std::optional<double> timeout)
{
    const double seconds = timeout ? std::max(0.0, *timeout) : 0.0;
    return std::chrono::steady_clock::now() +
           std::chrono::microseconds(static_cast<long long>(std::min(seconds, 1e7) * 1e6));
}

// tarvik.CAN: the library's CAN client with this object as its receiver, which hands
// received telegrams to the Python callbacks and wakes a Python thread waiting for a queue.
class CPyCAN : public CPyClientBase, public ITarvikCanReceiver
{
public:
    CPyCAN(const std::string& host, int portIndex, unsigned int timeoutMs, std::optional<int> port,
           unsigned long queueSize)
        : CPyClientBase(std::make_unique<CTarvikClientCANDll>(0, static_cast<int>(timeoutMs)), host, portIndex, port)
    {
        C().SetReceiver(this);
        if (queueSize != 0)
            C().SetMaxSizePerQueue(queueSize);
        std::lock_guard<std::mutex> lock(s_oLiveMutex);
        s_apLive.insert(this);
    }

    ~CPyCAN() override
    {
        // No call may run into this object once it is gone: stop first, with the GIL
        // released so that a callback waiting for it can finish.
        try
        {
            if (PyGILState_Check())
            {
                py::gil_scoped_release release;
                StopReleased();
            }
            else
                StopReleased();
        }
        catch (...)
        {
            // Releasing the GIL cannot fail while the interpreter runs; a destructor never throws.
        }
        std::lock_guard<std::mutex> lock(s_oLiveMutex);
        s_apLive.erase(this);
    }

    CTarvikClientCANDll& C() { return static_cast<CTarvikClientCANDll&>(*m_pClient); }

    static void CloseAll()
    {
        std::vector<CPyCAN*> all;
        {
            std::lock_guard<std::mutex> lock(s_oLiveMutex);
            all.assign(s_apLive.begin(), s_apLive.end());
        }
        py::gil_scoped_release release;
        for (CPyCAN* can : all)
            can->StopReleased();
    }

    // Stores a callback of a kind (with the GIL held); None switches it off, and the kind
    // goes to its queue again.
    void SetCallback(EQueue kind, const py::object& fn)
    {
        m_aoCallbacks[kind] = fn;
        m_abCallbacks[kind].store(!fn.is_none(), std::memory_order_release);
    }

    // Fetches with fetch (a Get operation: -1 when empty) until it yields or the
    // deadline passes. Needs the GIL released.
    template <class Fetch> bool WaitFor(std::chrono::steady_clock::time_point deadline, Fetch fetch)
    {
        // Fetched under the lock that OnQueued takes: a telegram queued after an empty
        // fetch cannot be missed by the wait that follows.
        std::unique_lock<std::mutex> lock(m_oQueuedMutex);
        for (;;)
        {
            if (fetch() >= 0)
                return true;
            if (std::chrono::steady_clock::now() >= deadline)
                return false;
            m_oQueued.wait_until(lock, deadline);
        }
    }

    // ITarvikCanReceiver, on the receive thread.
    bool OnFrame(unsigned int id, const char* data, int len, int flags, int sec, int usec) override
    {
        return Call(eQueueCAN,
                    [&] { return py::make_tuple(id, py::bytes(data, static_cast<size_t>(len)), flags, sec, usec); });
    }
    bool OnPDO(unsigned char p1, unsigned char p2, unsigned char len, const char* data) override
    {
        return Call(eQueuePDO, [&] { return py::make_tuple(p1, p2, py::bytes(data, len)); });
    }
    bool OnSYNC(unsigned char value) override
    {
        return Call(eQueueSYNC, [&] { return py::make_tuple(value); });
    }
    bool OnEMCY(unsigned char node, unsigned short code, unsigned char reg, const unsigned char* data) override
    {
        return Call(eQueueEMCY, [&] {
            return py::make_tuple(node, code, reg,
                                  py::bytes(reinterpret_cast<const char*>(data), tarvik_protocol::can::kEMCYData));
        });
    }
    bool OnGUARD(unsigned char node, unsigned char state) override
    {
        return Call(eQueueGUARD, [&] { return py::make_tuple(node, state); });
    }
    bool OnUndefined(int id, const char* data, int len, int sec, int usec) override
    {
        return Call(eQueueUndefined,
                    [&] { return py::make_tuple(id, py::bytes(data, static_cast<size_t>(len)), sec, usec); });
    }
    void OnQueued(EQueue) override
    {
        {
            std::lock_guard<std::mutex> lock(m_oQueuedMutex);
        }
        m_oQueued.notify_all();
    }

private:
    // Runs the Python callback of a kind with the arguments args() makes, under the GIL;
    // false (the telegram goes to its queue) when none is set. An exception it raises is
    // reported as unraisable (printed) and reception goes on.
    template <class Args> bool Call(EQueue kind, Args args)
    {
        if (!m_abCallbacks[kind].load(std::memory_order_acquire) || !Py_IsInitialized())
            return false;
        py::gil_scoped_acquire acquire;
        py::object fn = m_aoCallbacks[kind];
        if (!fn || fn.is_none())
            return false;
        try
        {
            fn(*args());
        }
        catch (py::error_already_set& error)
        {
            error.discard_as_unraisable("tarvik.CAN callback");
        }
        catch (const std::exception& error)
        {
            PyErr_SetString(PyExc_RuntimeError, error.what());
            PyErr_WriteUnraisable(nullptr);
        }
        return true;
    }

    py::object m_aoCallbacks[eQueueCount];
    std::atomic<bool> m_abCallbacks[eQueueCount] = {};
    std::mutex m_oQueuedMutex;
    std::condition_variable m_oQueued;
};

// Polls one queue until it yields or the deadline passes, with the GIL released.
template <class Fetch> bool WaitFor(CPyCAN& can, std::optional<double> timeout, Fetch fetch)
{
    py::gil_scoped_release release;
    return can.WaitFor(Deadline(timeout), fetch);
}

py::object GetMessage(CPyCAN& can, std::optional<double> timeout)
{
    int id = 0, flags = 0, sec = 0, usec = 0;
    char buffer[kMaxBuffer];
    unsigned char len = 0;
    if (!WaitFor(can, timeout, [&] { return can.C().CANGetMessage(&id, buffer, &len, &flags, &sec, &usec); }))
        return py::none();
    return py::make_tuple(static_cast<unsigned int>(id), py::bytes(buffer, len), flags & 0xFF, sec, usec);
}

// Up to max frames at once, oldest first, waiting up to timeout for the first.
py::list GetMessages(CPyCAN& can, int max, std::optional<double> timeout)
{
    if (max < 1)
        throw py::value_error("max must be at least 1, not " + std::to_string(max));
    // Taken in chunks of this many, so that a large max needs no large buffer.
    constexpr int kChunk = 256;
    std::vector<STarvikCanMessage> frames(static_cast<size_t>(std::min(max, kChunk)));
    py::list out;
    int taken = 0, left = 0, got = 0;
    WaitFor(can, timeout, [&] {
        got = can.C().CANGetMessages(frames.data(), static_cast<int>(frames.size()), &left);
        return got > 0 ? got : -1;
    });
    for (;;)
    {
        for (int i = 0; i < got; ++i)
        {
            const STarvikCanMessage& frame = frames[static_cast<size_t>(i)];
            out.append(py::make_tuple(static_cast<unsigned int>(frame.nIdentifier), py::bytes(frame.acData, frame.nLen),
                                      frame.nFlags & 0xFF, frame.nSeconds, frame.nMicroseconds));
        }
        taken += got;
        if (taken >= max || left == 0 || got < static_cast<int>(frames.size()))
            return out;
        py::gil_scoped_release release;
        got = can.C().CANGetMessages(frames.data(), std::min(max - taken, kChunk), &left);
    }
}

py::object GetPDO(CPyCAN& can, std::optional<double> timeout)
{
    unsigned char p1 = 0, p2 = 0, len = 0;
    char buffer[kMaxBuffer];
    if (!WaitFor(can, timeout, [&] { return can.C().CANopenGetPDO(&p1, &p2, &len, buffer); }))
        return py::none();
    return py::make_tuple(p1, p2, py::bytes(buffer, len));
}

py::object GetSYNC(CPyCAN& can, std::optional<double> timeout)
{
    unsigned char value = 0;
    if (!WaitFor(can, timeout, [&] { return can.C().CANopenGetSYNC(&value); }))
        return py::none();
    return py::int_(value);
}

py::object GetEMCY(CPyCAN& can, std::optional<double> timeout)
{
    unsigned char node = 0, reg = 0;
    unsigned short code = 0;
    unsigned char data[5] = {};
    if (!WaitFor(can, timeout, [&] { return can.C().CANopenGetEMCY(&node, &code, &reg, data); }))
        return py::none();
    return py::make_tuple(node, code, reg, py::bytes(reinterpret_cast<const char*>(data), 5));
}

py::object GetGUARD(CPyCAN& can, std::optional<double> timeout)
{
    unsigned char node = 0, state = 0;
    if (!WaitFor(can, timeout, [&] { return can.C().CANopenGetGUARD(&node, &state); }))
        return py::none();
    return py::make_tuple(node, state);
}

py::object GetUndefined(CPyCAN& can, std::optional<double> timeout)
{
    int id = 0, sec = 0, usec = 0;
    unsigned char p1 = 0, p2 = 0, len = 0;
    char buffer[kMaxBuffer];
    if (!WaitFor(can, timeout, [&] { return can.C().CANopenGetUndefined(&id, &p1, &p2, &len, buffer, &sec, &usec); }))
        return py::none();
    return py::make_tuple(id, py::bytes(buffer, len), sec, usec);
}

std::string Bytes(const py::bytes& data)
{
    return static_cast<std::string>(data);
}

std::pair<int, int> Write(CPyCAN& can, unsigned int id, const py::bytes& data, unsigned char flags)
{
    const std::string buffer = Bytes(data);
    if (buffer.size() > 64)
        throw py::value_error("a CAN frame carries at most 64 data bytes");
    int sec = 0, usec = 0;
    PyTarvikCall([&] {
        return can.C().Write(static_cast<int>(id), buffer.data(), static_cast<unsigned char>(buffer.size()), flags,
                             &sec, &usec);
    });
    return {sec, usec};
}

void SetCyclic(CPyCAN& can, unsigned char index, bool enable, unsigned int intervalMs, unsigned int id,
               const py::bytes& data, unsigned char flags)
{
    const std::string buffer = Bytes(data);
    if (buffer.size() > 64)
        throw py::value_error("a CAN frame carries at most 64 data bytes");
    PyTarvikCall([&] {
        return can.C().SetCyclicMessage(index, enable, intervalMs, static_cast<int>(id), buffer.data(),
                                        static_cast<unsigned char>(buffer.size()), flags);
    });
}

py::dict GetGlobals(CPyCAN& can)
{
    unsigned int baud = 0, optionValue = 0;
    unsigned char setting = 0;
    bool f1 = false, f2 = false, f3 = false, o1 = false, o2 = false;
    PyTarvikCall([&] { return can.C().GetGlobals(baud, setting, f1, f2, f3, o1, optionValue, o2); });
    return py::dict("baudrate"_a = baud, "setting"_a = setting, "flag1"_a = f1, "flag2"_a = f2, "flag3"_a = f3,
                    "option1"_a = o1, "option_value"_a = optionValue, "option2"_a = o2);
}

void SetFilter(CPyCAN& can, const std::vector<unsigned int>& words)
{
    if (words.size() != 16)
        throw py::value_error("the filter is 16 words (eight code/mask pairs)");
    CTarvikClientCAN::SConfigFilter filter{};
    std::memcpy(filter.nFilter, words.data(), sizeof(filter.nFilter));
    PyTarvikCall([&] { return can.C().SetFilter(filter); });
}

std::vector<unsigned int> GetFilter(CPyCAN& can)
{
    CTarvikClientCAN::SConfigFilter filter{};
    PyTarvikCall([&] { return can.C().GetFilter(filter); });
    return std::vector<unsigned int>(filter.nFilter, filter.nFilter + 16);
}

py::dict GetPowerStatus(CPyCAN& can)
{
    static constexpr unsigned char kMax = 32;
    unsigned char nValues = 0, nStates1 = 0, nStates2 = 0;
    short status1 = 0;
    unsigned short status2 = 0, status3 = 0;
    bool bit = false;
    unsigned short values[kMax] = {};
    bool states1[kMax] = {}, states2[kMax] = {};
    PyTarvikCall([&] {
        return can.C().GetPowerStatus(kMax, nValues, kMax, nStates1, kMax, nStates2, status1, status2, status3, bit,
                                      values, states1, states2);
    });
    auto n = [](unsigned char count) { return std::min<unsigned char>(count, kMax); };
    return py::dict("values"_a = std::vector<unsigned short>(values, values + n(nValues)),
                    "states1"_a = std::vector<bool>(states1, states1 + n(nStates1)),
                    "states2"_a = std::vector<bool>(states2, states2 + n(nStates2)), "status1"_a = status1,
                    "status2"_a = status2, "status3"_a = status3, "status_bit"_a = bit);
}

template <CTarvikClientCANDll::EQueue Kind> void SetOn(CPyCAN& can, const py::object& fn)
{
    can.SetCallback(Kind, fn);
}

py::dict DropCounts(CPyCAN& can)
{
    static const char* const kNames[CTarvikClientCANDll::eQueueCount] = {"pdo",   "sync",      "emcy",
                                                                         "guard", "undefined", "can"};
    py::dict all;
    for (int i = 0; i < CTarvikClientCANDll::eQueueCount; ++i)
    {
        STarvikCanDropCounts counts{};
        can.C().GetDropCounts(static_cast<CTarvikClientCANDll::EQueue>(i), counts);
        all[kNames[i]] = py::dict("queues_off"_a = counts.nDisabled, "queue_full"_a = counts.nFull,
                                  "too_long"_a = counts.nTooLong, "too_short"_a = counts.nTooShort);
    }
    return all;
}

// An expedited SDO upload as the node answered it; an abort raises SdoAbortError.
CTarvikClientCAN::SSDOValue SDORead(CPyCAN& can, unsigned char node, unsigned short index, unsigned char sub,
                                    unsigned short timeoutMs)
{
    CTarvikClientCAN::SSDOValue sdo{};
    CanOpenCall([&] { return can.C().CANopenSDOReadValue(node, index, sub, timeoutMs, sdo); }, node, &sdo.nAbortCode);
    return sdo;
}

} // namespace

void PyTarvikBindCAN(py::module_& module)
{
    using Release = py::call_guard<py::gil_scoped_release>;
    py::class_<CPyCAN> cls(module, "CAN",
                           R"(A CAN gateway: frames, configuration, cyclic messages, CANopen master services.

Received telegrams go to a callback (on_frame, on_pdo, ...) or, with set_queue_size(n) > 0,
into receive queues read by get_message(), get_pdo(), ...; without either they are dropped.)");
    cls.def(py::init<const std::string&, int, unsigned int, std::optional<int>, unsigned long>(),
            "host"_a = "127.0.0.1", "port_index"_a = 0, "timeout_ms"_a = 1000, "port"_a = py::none(),
            "queue_size"_a = 0, "Creates the client; queue_size > 0 enables the receive queues at once.");
    // The common operations, without the constructor of PyTarvikBindBase.
    cls.def("connect", &CPyCAN::Connect, "Connects to the gateway. Raises TarvikError on failure.")
        .def("open", &CPyCAN::OpenDevice, "Prepares the device after connecting (the context manager does this).")
        .def("close", &CPyCAN::Close, Release(),
             "Stops the connection and waits for its receive thread; no callback runs after it returns.")
        .def("info", &CPyCAN::Info, "The device's 20-byte information record: {'raw': bytes, 'device_type': int}.")
        .def("status", &CPyCAN::Status, "The device's status text.")
        .def("restart", &CPyCAN::Restart, "Restarts the device.")
        .def_property_readonly("connected", &CPyCAN::IsConnected)
        .def_property_readonly("host", &CPyCAN::GetHost)
        .def_property_readonly("port_index", &CPyCAN::GetPortIndex)
        .def_property_readonly("port", &CPyCAN::GetPort)
        .def("__enter__",
             [](py::object self) {
                 CPyCAN& can = self.cast<CPyCAN&>();
                 can.Connect();
                 can.OpenDevice();
                 return self;
             })
        .def("__exit__", [](CPyCAN& can, const py::args&) {
            py::gil_scoped_release release;
            can.Close();
            return false;
        });

    cls.def(
           "set_config",
           [](CPyCAN& can, bool confirm, bool timestamps) {
               PyTarvikCall([&] { return can.C().SetConfig(confirm, timestamps); });
           },
           "send_confirm"_a, "timestamps"_a = false,
           "send_confirm: write() waits for the gateway's confirmation and returns its time of transmission; "
           "timestamps: received frames carry the gateway's time (flag 0x04).")
        .def(
            "get_config",
            [](CPyCAN& can) {
                bool confirm = false, timestamps = false;
                PyTarvikCall([&] { return can.C().GetConfig(confirm, timestamps); });
                return py::make_tuple(confirm, timestamps);
            },
            "(send_confirm, timestamps)")
        .def("set_filter", &SetFilter, "words"_a,
             "Sets the acceptance filter: 16 words, eight (code, mask) pairs; a frame passes when "
             "id & mask == code & mask for a pair with a non-zero mask, or when no mask is set.")
        .def("get_filter", &GetFilter, "The acceptance filter's 16 words.")
        .def(
            "set_globals",
            [](CPyCAN& can, unsigned int baud, unsigned char setting, bool f1, bool f2, bool f3, bool o1,
               unsigned int optionValue, bool o2) {
                PyTarvikCall([&] { return can.C().SetGlobals(baud, setting, f1, f2, f3, o1, optionValue, o2); });
            },
            "baudrate"_a, "setting"_a = 0, "flag1"_a = false, "flag2"_a = false, "flag3"_a = false, "option1"_a = false,
            "option_value"_a = 0, "option2"_a = false, "Sets the bit rate and bus settings.")
        .def("get_globals", &GetGlobals, "The bit rate and bus settings as a dict.")
        .def(
            "set_time",
            [](CPyCAN& can, int sec, int usec) {
                timeval tv{sec, usec};
                PyTarvikCall([&] { return can.C().SetTime(tv); });
            },
            "seconds"_a, "microseconds"_a = 0, "Sets the gateway's clock.")
        .def(
            "get_time",
            [](CPyCAN& can) {
                bool valid = false;
                timeval tv{0, 0};
                PyTarvikCall([&] { return can.C().CTarvikClientCAN::GetTime(valid, tv); });
                return py::make_tuple(valid, static_cast<long>(tv.tv_sec), static_cast<long>(tv.tv_usec));
            },
            "The gateway's clock: (valid, seconds, microseconds).")
        .def("get_power_status", &GetPowerStatus, "Power supplies, relay and temperature as a dict.")
        .def(
            "set_power_relais", [](CPyCAN& can, bool on) { PyTarvikCall([&] { return can.C().SetPowerRelais(on); }); },
            "on"_a)
        .def(
            "set_active_power_supplies",
            [](CPyCAN& can, unsigned int mask) { PyTarvikCall([&] { return can.C().SetActivePowerSupplies(mask); }); },
            "mask"_a)
        .def(
            "set_zcard_parameter",
            [](CPyCAN& can, unsigned char p1, unsigned short p2, unsigned short p3) {
                PyTarvikCall([&] { return can.C().SetZCardParameter(p1, p2, p3); });
            },
            "p1"_a, "p2"_a, "p3"_a)
        .def(
            "get_zcard_parameter",
            [](CPyCAN& can) {
                unsigned char p1 = 0;
                unsigned short p2 = 0, p3 = 0;
                PyTarvikCall([&] { return can.C().GetZCardParameter(p1, p2, p3); });
                return py::make_tuple(p1, p2, p3);
            },
            "(p1, p2, p3)")
        .def("write", &Write, "id"_a, "data"_a = py::bytes(), "flags"_a = 0,
             "Sends one frame (flags: 0x01 extended id, 0x02 remote, 0x08 FD); a remote frame's data are as "
             "many (unused) bytes as it requests. Returns (seconds, microseconds): "
             "the gateway's time of transmission when send_confirm is set, else the local time of sending.")
        .def("set_cyclic_message", &SetCyclic, "index"_a, "enable"_a, "interval_ms"_a = 0, "id"_a = 0,
             "data"_a = py::bytes(), "flags"_a = 0,
             "Sets cyclic entry index (0..15): the gateway sends the frame every interval_ms until disabled.")
        .def(
            "start_alive", [](CPyCAN& can, unsigned int sec) { PyTarvikCall([&] { return can.C().StartAlive(sec); }); },
            "seconds"_a)
        .def(
            "set_queue_size", [](CPyCAN& can, unsigned long n) { can.C().SetMaxSizePerQueue(n); }, "n"_a,
            "n > 0: every receive queue keeps up to n telegrams (later ones are dropped); 0 empties and "
            "disables them.")
        .def("get_message", &GetMessage, "timeout"_a = py::none(),
             "The oldest queued frame as (id, data, flags, seconds, microseconds), waiting up to timeout "
             "seconds (None: no wait), or None. A remote frame's data length is its requested length.")
        .def("get_messages", &GetMessages, "max"_a = 256, "timeout"_a = py::none(),
             "Up to max of the oldest queued frames at once, as a list of (id, data, flags, seconds, "
             "microseconds), waiting up to timeout seconds (None: no wait) for the first; [] when none came.")
        .def("get_pdo", &GetPDO, "timeout"_a = py::none(), "(selector1, selector2, data) or None")
        .def("get_sync", &GetSYNC, "timeout"_a = py::none(), "The SYNC value or None")
        .def("get_emcy", &GetEMCY, "timeout"_a = py::none(), "(node, error_code, error_register, data) or None")
        .def("get_guard", &GetGUARD, "timeout"_a = py::none(), "(node, state) or None")
        .def("get_undefined", &GetUndefined, "timeout"_a = py::none(), "(id, data, seconds, microseconds) or None")
        .def("drop_counts", &DropCounts,
             "Telegrams dropped on arrival, per kind ('can', 'pdo', 'sync', 'emcy', 'guard', 'undefined'): "
             "{'queues_off', 'queue_full', 'too_long', 'too_short'}.")
        .def("on_frame", &SetOn<CTarvikClientCANDll::eQueueCAN>, "callback"_a,
             "callback(id, data, flags, seconds, microseconds) for every received frame, on the receive "
             "thread; None switches it off. An exception it raises is reported and reception goes on.")
        .def("on_pdo", &SetOn<CTarvikClientCANDll::eQueuePDO>, "callback"_a, "callback(selector1, selector2, data)")
        .def("on_sync", &SetOn<CTarvikClientCANDll::eQueueSYNC>, "callback"_a, "callback(value)")
        .def("on_emcy", &SetOn<CTarvikClientCANDll::eQueueEMCY>, "callback"_a,
             "callback(node, error_code, error_register, data)")
        .def("on_guard", &SetOn<CTarvikClientCANDll::eQueueGUARD>, "callback"_a, "callback(node, state)")
        .def("on_undefined", &SetOn<CTarvikClientCANDll::eQueueUndefined>, "callback"_a,
             "callback(id, data, seconds, microseconds)");

    cls.def(
           "canopen_set_config",
           [](CPyCAN& can, unsigned char mode) { CanOpenCall([&] { return can.C().CANopenSetConfig(mode); }); },
           "mode"_a, "Sets the CANopen master mode.")
        .def(
            "canopen_get_config",
            [](CPyCAN& can) {
                unsigned char mode = 0;
                CanOpenCall([&] { return can.C().CANopenGetConfig(mode); });
                return mode;
            },
            "The CANopen master mode.")
        .def(
            "sync_mode",
            [](CPyCAN& can, unsigned short mode) { CanOpenCall([&] { return can.C().CANopenSetSYNCMode(mode); }); },
            "mode"_a, "Sets the SYNC mode (the gateway's SYNC period).")
        .def(
            "nmt",
            [](CPyCAN& can, unsigned char node, unsigned char command) {
                CanOpenCall([&] { return can.C().CANopenSendNMT(node, command); });
            },
            "node"_a, "command"_a, "Sends an NMT command (node 0: all nodes).")
        .def(
            "sync", [](CPyCAN& can) { CanOpenCall([&] { return can.C().CANopenSendSYNC(); }); }, "Sends one SYNC.")
        .def(
            "time",
            [](CPyCAN& can, unsigned short days, unsigned int ms) {
                CanOpenCall([&] { return can.C().CANopenSendTIME(days, ms); });
            },
            "days"_a, "milliseconds"_a, "Sends a TIME message.")
        .def(
            "pdo",
            [](CPyCAN& can, unsigned char s1, unsigned char s2, const py::bytes& data) {
                const std::string buffer = Bytes(data);
                if (buffer.size() > 8)
                    throw py::value_error("a PDO carries at most 8 bytes");
                CanOpenCall([&] {
                    return can.C().CANopenSendPDO(s1, s2, static_cast<unsigned char>(buffer.size()), buffer.data());
                });
            },
            "selector1"_a, "selector2"_a, "data"_a, "Sends a PDO.")
        .def(
            "sdo_read",
            [](CPyCAN& can, unsigned char node, unsigned short index, unsigned char sub, unsigned short timeoutMs) {
                return SDORead(can, node, index, sub, timeoutMs).nValue;
            },
            "node"_a, "index"_a, "subindex"_a, "timeout_ms"_a = 1000,
            "Expedited SDO upload: the value, its bytes as received read as an unsigned little-endian number. "
            "Raises SdoAbortError (abort_code, abort_text) when the node aborts.")
        .def(
            "sdo_read_sized",
            [](CPyCAN& can, unsigned char node, unsigned short index, unsigned char sub, unsigned short timeoutMs) {
                const CTarvikClientCAN::SSDOValue sdo = SDORead(can, node, index, sub, timeoutMs);
                return py::make_tuple(sdo.nValue, sdo.nSize);
            },
            "node"_a, "index"_a, "subindex"_a, "timeout_ms"_a = 1000, "As sdo_read: (value, number of bytes received).")
        .def(
            "sdo_write",
            [](CPyCAN& can, unsigned char node, unsigned short index, unsigned char sub, unsigned int data,
               unsigned char size, unsigned short timeoutMs) {
                if (size < 1 || size > CTarvikClientCAN::kSDOMaxValueSize)
                    throw py::value_error("an expedited SDO download carries 1 to 4 bytes");
                if (size < 4 && (data >> (8 * size)) != 0)
                    throw py::value_error("value does not fit in " + std::to_string(size) + " bytes");
                CTarvikClientCAN::SSDOValue sdo{};
                CanOpenCall([&] { return can.C().CANopenSDOWriteValue(node, size, index, sub, timeoutMs, data, sdo); },
                            node, &sdo.nAbortCode);
            },
            "node"_a, "index"_a, "subindex"_a, "value"_a, "size"_a = 4, "timeout_ms"_a = 1000,
            "Expedited SDO download of size (1..4) bytes. Raises SdoAbortError when the node aborts.")
        .def(
            "sdo_read_block",
            [](CPyCAN& can, unsigned char node, unsigned short index, unsigned char sub, unsigned short timeoutMs) {
                unsigned char status = 0;
                unsigned int abortCode = 0;
                std::string data;
                CanOpenCall(
                    [&] {
                        return can.C().CANopenSDOReadBlockData(node, index, sub, timeoutMs, status, data, abortCode);
                    },
                    node, &abortCode);
                return py::bytes(data);
            },
            "node"_a, "index"_a, "subindex"_a, "timeout_ms"_a = 1000,
            "Block SDO upload: every byte of the object. Raises SdoAbortError when the node aborts.")
        .def(
            "sdo_write_block",
            [](CPyCAN& can, unsigned char node, unsigned short index, unsigned char sub, const py::bytes& data,
               unsigned short timeoutMs) {
                const std::string buffer = Bytes(data);
                if (buffer.size() > 0xFFFF)
                    throw py::value_error("too much data for one SDO block");
                CTarvikClientCAN::SSDOValue sdo{};
                CanOpenCall(
                    [&] {
                        return can.C().CANopenSDOWriteBlockValue(
                            node, index, sub, timeoutMs, static_cast<unsigned short>(buffer.size()),
                            reinterpret_cast<const unsigned char*>(buffer.data()), sdo);
                    },
                    node, &sdo.nAbortCode);
            },
            "node"_a, "index"_a, "subindex"_a, "data"_a, "timeout_ms"_a = 1000,
            "Block SDO download. Raises SdoAbortError when the node aborts.");

    module.def("_close_all_can", &CPyCAN::CloseAll, "Stops every CAN client (run at exit).");
    // The flags byte of a frame, from the one place the library names it.
    module.attr("CAN_FLAG_EXTENDED") = tarvik_protocol::can::kFlagExtended;
    module.attr("CAN_FLAG_REMOTE") = tarvik_protocol::can::kFlagRemote;
    module.attr("CAN_FLAG_TIMESTAMP") = tarvik_protocol::can::kFlagTimeStamp;
    module.attr("CAN_FLAG_FD") = tarvik_protocol::can::kFlagFD;
}
