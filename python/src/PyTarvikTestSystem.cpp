// The test system's units: tarvik.TestSystemCOM (configurations), tarvik.TestSystemIO,
// tarvik.TestSystemPWR and tarvik.TestSystemRelay (value and power words, relays, buttons).
#include "PyTarvikFamilies.h"

#include "tarvik/clients/TarvikClientTestSystemCOM.h"
#include "tarvik/clients/TarvikClientTestSystemIO.h"
#include "tarvik/clients/TarvikClientTestSystemPWR.h"
#include "tarvik/clients/TarvikClientTestSystemRelay.h"

#include <fstream>
#include <vector>

using namespace pybind11::literals;

namespace
{

using CPyCOM = CPyClient<CTarvikClientTestSystemCOM>;
using CPyIO = CPyClient<CTarvikClientTestSystemIO>;
using CPyPWR = CPyClient<CTarvikClientTestSystemPWR>;
using CPyRelay = CPyClient<CTarvikClientTestSystemRelay>;

// A word operation of a unit: (words, count).
template <class T> using WordOp = int (T::*)(unsigned short*, unsigned char);

// set_xxx(words): at most 255 words travel in one request.
template <class W, class T> auto SetWords(WordOp<T> method)
{
    return [method](W& w, std::vector<unsigned short> words) {
        if (words.size() > 255)
            throw py::value_error("at most 255 words");
        PyTarvikCall([&] { return (w.C().*method)(words.data(), static_cast<unsigned char>(words.size())); });
    };
}

// get_xxx(count): the words the unit answered, zero where its answer held fewer.
template <class W, class T> auto GetWords(WordOp<T> method)
{
    return [method](W& w, unsigned char count) {
        std::vector<unsigned short> words(count, 0);
        PyTarvikCall([&] { return (w.C().*method)(words.data(), count); });
        return words;
    };
}

// The power channels that the IO and the relay unit share.
template <class W, class T, class Cls> void BindPower(Cls& cls)
{
    cls.def("set_power", SetWords<W, T>(&T::SetPower), "words"_a, "Sets the power channels' words.")
        .def("get_power", GetWords<W, T>(&T::GetPower), "count"_a, "count words of the power channels.");
}

void BindCOM(py::module_& module)
{
    py::class_<CPyCOM> cls(module, "TestSystemCOM",
                           "The communication unit of a test system: uploads, installs and selects named "
                           "configurations.");
    PyTarvikBindBase<CPyCOM>(cls);
    cls.def(
           "set_config",
           [](CPyCOM& w, const std::string& name) { PyTarvikCall([&] { return w.C().SetConfig(name); }); }, "name"_a,
           "Starts the named configuration the unit holds.")
        .def(
            "get_config",
            [](CPyCOM& w) {
                std::string name;
                PyTarvikCall([&] { return w.C().GetConfig(name); });
                return name;
            },
            "The active configuration's name.")
        .def(
            "is_config_available",
            [](CPyCOM& w, const std::string& name) {
                bool available = false;
                unsigned int crc = 0;
                PyTarvikCall([&] { return w.C().IsConfigAvailable(name, available, crc); });
                return py::make_tuple(available, crc);
            },
            "name"_a, "(available, crc) of a configuration on the unit; crc 0 when it is not there.")
        .def(
            "send_file",
            [](CPyCOM& w, const std::string& path, unsigned int crc) {
                PyTarvikCall([&] { return w.C().SendFile(path, crc); });
            },
            "path"_a, "crc"_a = 0, "Uploads a file in chunks; crc 0: computed here.")
        .def(
            "install_config",
            [](CPyCOM& w, const std::string& name, const std::string& path) {
                PyTarvikCall([&] { return w.C().InstallConfig(name, path); });
            },
            "name"_a, "path"_a,
            "Uploads the file unless the unit holds it with the same CRC, then installs and starts it as name.")
        .def_static("file_name", &CTarvikClientTestSystemCOM::GetFileName, "path"_a,
                    "The part of a path after its last '/' or '\\\\'.")
        .def_static(
            "crc32",
            [](const std::string& path) {
                std::ifstream file(path, std::ios::binary);
                if (!file)
                {
                    PyErr_SetString(PyExc_OSError, ("cannot open " + path).c_str());
                    throw py::error_already_set();
                }
                return CTarvikClientTestSystemCOM::GetCRC32(file);
            },
            "path"_a, "CRC-32 of a file, as the upload computes it.");
}

void BindIO(py::module_& module)
{
    using T = CTarvikClientTestSystemIO;
    py::class_<CPyIO> cls(module, "TestSystemIO", "The IO unit of a test system: value words and power channels.");
    PyTarvikBindBase<CPyIO>(cls);
    cls.def("set_value", SetWords<CPyIO, T>(&T::SetValue), "words"_a, "Sets the value words.")
        .def("get_value", GetWords<CPyIO, T>(&T::GetValue), "count"_a, "count value words.");
    BindPower<CPyIO, T>(cls);
}

void BindPWR(py::module_& module)
{
    using T = CTarvikClientTestSystemPWR;
    py::class_<CPyPWR> cls(module, "TestSystemPWR", "The power unit of a test system: value words.");
    PyTarvikBindBase<CPyPWR>(cls);
    cls.def("set_value", SetWords<CPyPWR, T>(&T::SetValue), "words"_a, "Sets the value words.")
        .def("get_value", GetWords<CPyPWR, T>(&T::GetValue), "count"_a, "count value words.");
}

void BindRelay(py::module_& module)
{
    using T = CTarvikClientTestSystemRelay;
    py::class_<CPyRelay> cls(module, "TestSystemRelay",
                             "The relay unit of a test system: relays, power channels, push-buttons.");
    PyTarvikBindBase<CPyRelay>(cls);
    cls.def(
           "set_relay",
           [](CPyRelay& w, unsigned char relay, bool on) { PyTarvikCall([&] { return w.C().SetRelay(relay, on); }); },
           "relay"_a, "on"_a, "Switches a relay.")
        .def(
            "get_button",
            [](CPyRelay& w, unsigned char button) {
                bool pressed = false;
                PyTarvikCall([&] { return w.C().GetButton(button, pressed); });
                return pressed;
            },
            "button"_a, "Whether a push-button is pressed.");
    BindPower<CPyRelay, T>(cls);
}

} // namespace

void PyTarvikBindTestSystem(py::module_& module)
{
    BindCOM(module);
    BindIO(module);
    BindPWR(module);
    BindRelay(module);
}
