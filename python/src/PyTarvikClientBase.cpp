#include "PyTarvikClientBase.h"

#include <pybind11/eval.h>

#include <Python.h>

namespace
{

PyObject* s_pTarvikError = nullptr;
PyObject* s_pSdoAbortError = nullptr;

[[noreturn]] void Raise(PyObject* cls, const py::object& error)
{
    PyErr_SetObject(cls, error.ptr());
    throw py::error_already_set();
}

} // namespace

void PyTarvikCheck(int code)
{
    if (code != 0)
        PyTarvikCheck(code, py::dict());
}

void PyTarvikCheck(int code, const py::dict& attributes)
{
    if (code == 0)
        return;
    const std::string text = CTarvikClient::GetErrorMsg(code);
    py::object error = py::reinterpret_borrow<py::object>(s_pTarvikError)(code, text);
    for (auto item : attributes)
        py::setattr(error, item.first, item.second);
    Raise(s_pTarvikError, error);
}

void PyTarvikRaise(int code, const std::string& message)
{
    Raise(s_pTarvikError, py::reinterpret_borrow<py::object>(s_pTarvikError)(code, message));
}

void PyTarvikRaiseSdoAbort(int code, unsigned int abortCode, const std::string& abortText, int node)
{
    Raise(s_pSdoAbortError, py::reinterpret_borrow<py::object>(s_pSdoAbortError)(code, CTarvikClient::GetErrorMsg(code),
                                                                                 abortCode, abortText, node));
}

std::string_view PyTarvikBytes(const py::bytes& data, size_t maxLen)
{
    char* buffer = nullptr;
    Py_ssize_t length = 0;
    if (PyBytes_AsStringAndSize(data.ptr(), &buffer, &length) != 0)
        throw py::error_already_set();
    if (static_cast<size_t>(length) > maxLen)
        throw py::value_error("data longer than " + std::to_string(maxLen) + " bytes");
    return std::string_view(buffer, static_cast<size_t>(length));
}

unsigned short PyTarvikLength(long long length, size_t maxLen)
{
    if (length < 0 || static_cast<unsigned long long>(length) > maxLen)
        throw py::value_error("length outside 0.." + std::to_string(maxLen));
    return static_cast<unsigned short>(length);
}

void PyTarvikCheckReleased(int code)
{
    if (code == 0)
        return;
    py::gil_scoped_acquire acquire;
    PyTarvikCheck(code);
}

void PyTarvikBindErrors(py::module_& module)
{
    // The exception class itself is pure Python (tarvik/__init__.py re-exports it), defined here so
    // that the module can raise it before the package has finished importing.
    py::dict scope;
    py::exec(R"py(
class TarvikError(Exception):
    """A device operation failed. `code` is the library's result code, `message` its text."""
    def __init__(self, code, message):
        super().__init__(code, message)
        self.code = code
        self.message = message
    def __str__(self):
        return "%s (0x%06X)" % (self.message, self.code & 0xFFFFFFFF)

class SdoAbortError(TarvikError):
    """A CANopen node aborted an SDO transfer. `abort_code` is its 32-bit SDO abort code,
    `abort_text` the code's standard meaning, `node` the node; `code` is the gateway's result."""
    def __init__(self, code, message, abort_code, abort_text, node):
        super().__init__(code, message)
        self.abort_code = abort_code
        self.abort_text = abort_text
        self.node = node
    def __str__(self):
        return "node %d aborted the SDO transfer with 0x%08X: %s" % (self.node, self.abort_code, self.abort_text)
)py",
             scope);
    py::object cls = scope["TarvikError"];
    cls.attr("__module__") = "tarvik";
    s_pTarvikError = cls.ptr();
    Py_INCREF(s_pTarvikError); // lives as long as the process: raised from any thread
    module.attr("TarvikError") = cls;
    py::object abortCls = scope["SdoAbortError"];
    abortCls.attr("__module__") = "tarvik";
    s_pSdoAbortError = abortCls.ptr();
    Py_INCREF(s_pSdoAbortError);
    module.attr("SdoAbortError") = abortCls;
    module.def(
        "error_message", [](int code) { return CTarvikClient::GetErrorMsg(code); }, py::arg("code"),
        "The library's text for a result code.");
}

CPyClientBase::CPyClientBase(std::unique_ptr<CTarvikClient> client, std::string host, int portIndex,
                             std::optional<int> port)
    : m_pClient(std::move(client)), m_sHost(std::move(host)), m_nPortIndex(portIndex), m_nPort(port)
{
    // The gateways' port indexes, as the C interface takes them.
    if (portIndex < 0 || portIndex > 99)
        throw py::value_error("port_index must be 0..99, got " + std::to_string(portIndex));
    if (port && (*port < 0 || *port > 65535))
        throw py::value_error("port must be 0..65535, got " + std::to_string(*port));
}

CPyClientBase::~CPyClientBase()
{
    try
    {
        if (Py_IsInitialized() && PyGILState_Check())
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
}

unsigned short CPyClientBase::GetPort() const
{
    if (m_nPort && *m_nPort != 0)
        return static_cast<unsigned short>(*m_nPort);
    const int type = static_cast<int>(m_pClient->GetDeviceType());
    const int base = type == 0 ? 5099 : 4999 + type;
    return static_cast<unsigned short>(base + 100 * m_nPortIndex);
}

void CPyClientBase::Connect()
{
    const unsigned short port = GetPort();
    int result;
    {
        py::gil_scoped_release release;
        result = m_pClient->Connect(m_sHost.c_str(), port);
    }
    PyTarvikCheck(result);
}

int CPyClientBase::OpenClient()
{
    return m_pClient->Open();
}

void CPyClientBase::OpenDevice()
{
    int result;
    {
        py::gil_scoped_release release;
        result = OpenClient();
    }
    PyTarvikCheck(result);
}

void CPyClientBase::Close()
{
    StopReleased();
}

void CPyClientBase::StopReleased()
{
    m_pClient->StopConnection();
}

bool CPyClientBase::IsConnected() const
{
    return m_pClient->GetConnectState() == CMolIPBase::eStateConnected;
}

py::dict CPyClientBase::Info()
{
    STarvikDeviceInfo info{};
    int result;
    {
        py::gil_scoped_release release;
        result = m_pClient->Info(&info);
    }
    PyTarvikCheck(result);
    py::dict out;
    out["raw"] = py::bytes(reinterpret_cast<const char*>(info.m_abData), sizeof(info.m_abData));
    out["device_type"] = static_cast<int>(info.m_abData[TARVIK_DEVICE_INFO_TYPE_BYTE]);
    return out;
}

std::string CPyClientBase::Status()
{
    std::string text;
    int result;
    {
        py::gil_scoped_release release;
        result = m_pClient->Status(text);
    }
    PyTarvikCheck(result);
    return text;
}

void CPyClientBase::Restart()
{
    int result;
    {
        py::gil_scoped_release release;
        result = m_pClient->Restart();
    }
    PyTarvikCheck(result);
}
