// What every Python client class shares: the connection settings, connect/close, the
// context manager, info/status/restart, and TarvikError for non-zero result codes.
#ifndef TARVIK_PYTHON_PYTARVIKCLIENTBASE_H
#define TARVIK_PYTHON_PYTARVIKCLIENTBASE_H

#include "tarvik/core/TarvikClient.h"

#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace py = pybind11;

// Raises tarvik.TarvikError(code, text) for a non-zero result code. Needs the GIL.
void PyTarvikCheck(int code);
// The same with further attributes on the error (such as the device's error position).
void PyTarvikCheck(int code, const py::dict& attributes);
// The same for a result obtained with the GIL released: takes the GIL only on failure.
void PyTarvikCheckReleased(int code);
// Raises tarvik.TarvikError(code, message): a text of the tool's own for a result code.
[[noreturn]] void PyTarvikRaise(int code, const std::string& message);
// Raises tarvik.SdoAbortError for the gateway's result code and the node's abort code.
[[noreturn]] void PyTarvikRaiseSdoAbort(int code, unsigned int abortCode, const std::string& abortText, int node);
// Registers TarvikError, SdoAbortError and error_message in the module.
void PyTarvikBindErrors(py::module_& module);

// Runs fn (returning a result code) with the GIL released and raises its failure.
template <class Fn> void PyTarvikCall(Fn fn)
{
    int result;
    {
        py::gil_scoped_release release;
        result = fn();
    }
    PyTarvikCheck(result);
}

// The bytes of a bytes-like argument, without copying; ValueError past maxLen. The view
// stays valid while the argument lives (the caller holds it through the call).
std::string_view PyTarvikBytes(const py::bytes& data, size_t maxLen = 65535);
// A length argument that travels as an unsigned short (or smaller): ValueError past maxLen.
unsigned short PyTarvikLength(long long length, size_t maxLen = 65535);

class CPyClientBase
{
public:
    CPyClientBase(std::unique_ptr<CTarvikClient> client, std::string host, int portIndex, std::optional<int> port);
    // Stops the connection with the GIL released, so a callback waiting for it can finish.
    virtual ~CPyClientBase();
    CPyClientBase(const CPyClientBase&) = delete;
    CPyClientBase& operator=(const CPyClientBase&) = delete;

    void Connect();
    void OpenDevice();
    void Close();
    py::dict Info();
    std::string Status();
    void Restart();
    bool IsConnected() const;
    unsigned short GetPort() const;
    const std::string& GetHost() const { return m_sHost; }
    int GetPortIndex() const { return m_nPortIndex; }

protected:
    // Prepares the device after connecting; the default is the client's Open().
    virtual int OpenClient();
    // Stops the connection; must be called with the GIL released.
    void StopReleased();

    std::unique_ptr<CTarvikClient> m_pClient;

private:
    std::string m_sHost;
    int m_nPortIndex;
    std::optional<int> m_nPort;
};

// A client class of the family T: the typed client behind the common base.
template <class T> class CPyClient : public CPyClientBase
{
public:
    CPyClient(const std::string& host, int portIndex, unsigned int timeoutMs, std::optional<int> port)
        : CPyClientBase(std::make_unique<T>(static_cast<int>(timeoutMs)), host, portIndex, port)
    {
    }
    T& C() { return static_cast<T&>(*m_pClient); }
};

// Binds the constructor and the common operations of a client class.
template <class W, class Cls> void PyTarvikBindBase(Cls& cls)
{
    using namespace pybind11::literals;
    using Release = py::call_guard<py::gil_scoped_release>;
    cls.def(py::init<const std::string&, int, unsigned int, std::optional<int>>(), "host"_a = "127.0.0.1",
            "port_index"_a = 0, "timeout_ms"_a = 1000, "port"_a = py::none(),
            "Creates the client; nothing is sent until connect(). The port is 4999 + device type + "
            "100 * port_index unless given.")
        .def("connect", &W::Connect, "Connects to the gateway. Raises TarvikError on failure.")
        .def("open", &W::OpenDevice, "Prepares the device after connecting (the context manager does this).")
        .def("close", &W::Close, Release(),
             "Stops the connection and waits for its receive thread; no callback runs after it returns.")
        .def("info", &W::Info, "The device's 20-byte information record: {'raw': bytes, 'device_type': int}.")
        .def("status", &W::Status, "The device's status text.")
        // Through the typed client: the firmware client's Restart is a command of its own.
        .def(
            "restart", [](W& client) { PyTarvikCall([&] { return client.C().Restart(); }); }, "Restarts the device.")
        .def_property_readonly("connected", &W::IsConnected)
        .def_property_readonly("host", &W::GetHost)
        .def_property_readonly("port_index", &W::GetPortIndex)
        .def_property_readonly("port", &W::GetPort)
        .def("__enter__",
             [](py::object self) {
                 W& client = self.cast<W&>();
                 client.Connect();
                 try
                 {
                     client.OpenDevice();
                 }
                 catch (...)
                 {
                     py::gil_scoped_release release;
                     client.Close();
                     throw;
                 }
                 return self;
             })
        .def("__exit__", [](W& client, const py::args&) {
            py::gil_scoped_release release;
            client.Close();
            return false;
        });
}

#endif
