// tarvik.Renesas, tarvik.Firmware and tarvik.AWire: the gateways that program flash.
#include "PyTarvikFamilies.h"

#include "tarvik/clients/TarvikClientAWire.h"
#include "tarvik/clients/TarvikClientFirmware.h"
#include "tarvik/clients/TarvikClientRenesas.h"

#include <cstring>

using namespace pybind11::literals;

namespace
{

using CPyRenesas = CPyClient<CTarvikClientRenesas>;
using CPyFirmware = CPyClient<CTarvikClientFirmware>;
using CPyAWire = CPyClient<CTarvikClientAWire>;
using SInfoEx = CTarvikClientFirmware::STarvikDeviceInfoEx;

// A block of the AWire must fit one telegram with its header.
constexpr size_t kMaxAWireBlock = 65524;

void BindRenesasPages(py::class_<CPyRenesas>& cls)
{
    cls.def(
           "read_page",
           [](CPyRenesas& w, unsigned short page, long long length) {
               std::string buffer(PyTarvikLength(length), '\0');
               unsigned short received = 0;
               PyTarvikCall([&] {
                   return w.C().ReadPage(page, buffer.data(), static_cast<unsigned short>(buffer.size()), received);
               });
               return py::bytes(buffer.data(), std::min<size_t>(received, buffer.size()));
           },
           "page"_a, "length"_a = CTarvikClientRenesas::kPageSize, "The page's bytes (at most length).")
        .def(
            "write_page",
            [](CPyRenesas& w, unsigned short page, const py::bytes& data) {
                const std::string_view buffer = PyTarvikBytes(data);
                PyTarvikCall(
                    [&] { return w.C().WritePage(page, buffer.data(), static_cast<unsigned short>(buffer.size())); });
            },
            "page"_a, "data"_a, "Programs one 256-byte page: shorter data is padded with 0x00, longer cut.")
        .def(
            "erase_all", [](CPyRenesas& w) { PyTarvikCall([&] { return w.C().EraseAll(); }); }, "Erases the flash.")
        .def(
            "block_erase",
            [](CPyRenesas& w, unsigned short block) { PyTarvikCall([&] { return w.C().BlockErase(block); }); },
            "block"_a, "Erases one block.")
        .def(
            "verify_check",
            [](CPyRenesas& w, unsigned short first, unsigned short second) {
                unsigned short checksum = 0;
                PyTarvikCall([&] { return w.C().VerifyCheck(first, second, checksum); });
                return checksum;
            },
            "first"_a, "second"_a, "The gateway's checksum over the range (first, second).");
}

void BindRenesas(py::module_& module)
{
    py::class_<CPyRenesas> cls(module, "Renesas",
                               "A gateway that programs a Renesas microcontroller's flash: init(), check_id(), "
                               "pages, complete().");
    PyTarvikBindBase<CPyRenesas>(cls);
    cls.def(
           "init", [](CPyRenesas& w) { PyTarvikCall([&] { return w.C().Init(); }); },
           "Starts a programming sequence on the target.")
        .def(
            "check_id",
            [](CPyRenesas& w, const py::bytes& id) {
                const std::string_view buffer = PyTarvikBytes(id, 255);
                PyTarvikCall([&] { return w.C().CheckID(buffer.data(), static_cast<unsigned char>(buffer.size())); });
            },
            "id"_a, "Sends the first 7 ID bytes (missing ones as their 1-based positions); 0x0921 when wrong.")
        .def(
            "set_baudrate",
            [](CPyRenesas& w, unsigned char code) { PyTarvikCall([&] { return w.C().SetBaudrate(code); }); }, "code"_a,
            "Sets the target's rate (a code the gateway interprets).")
        .def(
            "get_version",
            [](CPyRenesas& w) {
                char buffer[256] = {};
                PyTarvikCall([&] { return w.C().GetVersion(buffer, 255); });
                return std::string(buffer, strnlen(buffer, sizeof(buffer)));
            },
            "The gateway's version text.")
        .def(
            "complete", [](CPyRenesas& w) { PyTarvikCall([&] { return w.C().Complete(); }); },
            "Ends the programming sequence.");
    BindRenesasPages(cls);
    PyTarvikBindDigital<CPyRenesas>(cls);
}

py::dict InfoToDict(const SInfoEx& info)
{
    py::dict out("sw_version"_a = info.nSWVersion, "hw_version"_a = info.nHWVersion, "field3"_a = info.nField3,
                 "field4"_a = info.nField4, "field5"_a = info.nField5, "field6"_a = info.nField6,
                 "sw_variant"_a = info.nSWVariant, "field9"_a = info.nField9, "layout_version"_a = info.nLayoutVersion,
                 "image_tag"_a = info.nImageTag);
    out["field8"] = py::make_tuple(info.aField8[0], info.aField8[1], info.aField8[2], info.aField8[3]);
    out["sw_version_string"] = info.GetSWVersionString();
    out["hw_version_string"] = info.GetHWVersionString();
    return out;
}

// Fields absent from the dict are zero.
SInfoEx InfoFromDict(const py::dict& fields)
{
    SInfoEx info{};
    auto get = [&](const char* key, auto& field) {
        if (fields.contains(key))
            field = fields[key].cast<std::remove_reference_t<decltype(field)>>();
    };
    get("sw_version", info.nSWVersion);
    get("hw_version", info.nHWVersion);
    get("field3", info.nField3);
    get("field4", info.nField4);
    get("field5", info.nField5);
    get("field6", info.nField6);
    get("sw_variant", info.nSWVariant);
    get("field9", info.nField9);
    get("layout_version", info.nLayoutVersion);
    get("image_tag", info.nImageTag);
    if (fields.contains("field8"))
    {
        auto words = fields["field8"].cast<std::vector<unsigned int>>();
        if (words.size() != 4)
            throw py::value_error("field8 holds four words");
        std::copy(words.begin(), words.end(), info.aField8);
    }
    return info;
}

void BindFirmwareEEProm(py::class_<CPyFirmware>& cls)
{
    cls.def(
           "get_eeprom_info",
           [](CPyFirmware& w) {
               int info = 0;
               PyTarvikCall([&] { return w.C().GetEEPromInfo(info); });
               return info;
           },
           "The information EEPROM's descriptor word.")
        .def(
            "read_eeprom",
            [](CPyFirmware& w, unsigned int address, long long length) {
                std::string buffer(PyTarvikLength(length), '\0');
                unsigned short received = 0;
                PyTarvikCall([&] {
                    return w.C().ReadEEProm(address, buffer.data(), static_cast<unsigned short>(buffer.size()),
                                            received);
                });
                return py::bytes(buffer.data(), std::min<size_t>(received, buffer.size()));
            },
            "address"_a, "length"_a, "Reads bytes of the information EEPROM.")
        .def(
            "write_eeprom",
            [](CPyFirmware& w, unsigned int address, const py::bytes& data) {
                const std::string_view buffer = PyTarvikBytes(data);
                PyTarvikCall([&] {
                    return w.C().WriteEEProm(address, buffer.data(), static_cast<unsigned short>(buffer.size()));
                });
            },
            "address"_a, "data"_a, "Writes bytes of the information EEPROM.")
        .def(
            "get_info",
            [](CPyFirmware& w) {
                SInfoEx info{};
                PyTarvikCall([&] { return w.C().GetInfo(info); });
                return InfoToDict(info);
            },
            "The extended device information from the EEPROM image, with sw_version_string and hw_version_string.")
        .def(
            "set_info",
            [](CPyFirmware& w, const py::dict& fields) {
                SInfoEx info = InfoFromDict(fields);
                PyTarvikCall([&] { return w.C().SetInfo(info); });
            },
            "info"_a, "Rewrites the information image (layout 2, fixed header words); fields absent from info are 0.");
}

void BindFirmware(py::module_& module)
{
    py::class_<CPyFirmware> cls(module, "Firmware",
                                "The service side of any gateway (port 5099 + 100 * port_index): firmware flash "
                                "in 2048-byte blocks and the information EEPROM.");
    PyTarvikBindBase<CPyFirmware>(cls);
    cls.attr("BLOCK_SIZE") = CTarvikClientFirmware::kFlashBlockSize;
    cls.def(
           "clear_flash", [](CPyFirmware& w) { PyTarvikCall([&] { return w.C().ClearFlash(); }); },
           "Erases the firmware flash.")
        .def(
            "read_flash",
            [](CPyFirmware& w, unsigned short block) {
                std::string buffer(CTarvikClientFirmware::kFlashBlockSize, '\0');
                unsigned long received = 0;
                PyTarvikCall([&] { return w.C().ReadFlash(block, buffer.data(), received); });
                return py::bytes(buffer.data(), std::min<size_t>(received, buffer.size()));
            },
            "block"_a, "One 2048-byte block of the firmware flash.")
        .def(
            "write_flash",
            [](CPyFirmware& w, unsigned short block, const py::bytes& data) {
                const std::string_view buffer = PyTarvikBytes(data);
                if (buffer.size() != CTarvikClientFirmware::kFlashBlockSize)
                    throw py::value_error("a flash block is 2048 bytes");
                PyTarvikCall([&] { return w.C().WriteFlash(block, buffer.data()); });
            },
            "block"_a, "data"_a, "Writes one block of exactly 2048 bytes.")
        .def_static("swablong", &CTarvikClientFirmware::swablong, "value"_a, "The four bytes of value reversed.");
    BindFirmwareEEProm(cls);
}

void BindAWireBlocks(py::class_<CPyAWire>& cls)
{
    using Sender = int (CTarvikClientAWire::*)(unsigned int, unsigned short, const char*, short&);
    auto send = [](Sender method) {
        return [method](CPyAWire& w, unsigned int address, const py::bytes& data) {
            const std::string_view buffer = PyTarvikBytes(data, kMaxAWireBlock);
            short handle = 0;
            PyTarvikCall([&] {
                return (w.C().*method)(address, static_cast<unsigned short>(buffer.size()), buffer.data(), handle);
            });
            return handle;
        };
    };
    cls.def("write_block", send(&CTarvikClientAWire::WriteBlock), "address"_a, "data"_a,
            "Sends a block to be programmed without waiting; returns the handle for write_block_status().")
        .def("write_user_page", send(&CTarvikClientAWire::WriteUserPage), "address"_a, "data"_a,
             "The same for the user page.")
        .def(
            "write_block_status",
            [](CPyAWire& w, short handle) {
                CTarvikClientAWire::Progress::EProgress state = CTarvikClientAWire::Progress::eInProgress;
                unsigned short length = 0, done = 0;
                PyTarvikCall([&] { return w.C().GetWriteBlockStatus(handle, state, length, done); });
                return py::make_tuple(static_cast<int>(state), length, done);
            },
            "handle"_a,
            "(state, length, done) of a block write: state 0 finished (reported once), 1 in progress, "
            "other values a failure the gateway reports.")
        .def(
            "write_file",
            [](CPyAWire& w, const std::string& path, const std::string& format, bool lenient) {
                // Loaded and checked here, so that a damaged file is refused before anything is sent.
                CTarvikHexfile image;
                PyTarvikHexLoad(image, path, format, lenient);
                PyTarvikCall([&] { return w.C().WriteImage(image); });
            },
            "path"_a, "format"_a = "detect", "lenient"_a = false,
            "Starts writing a memory-image file (Intel HEX, S-records, binary) in the background, then "
            "comparing it; follow it with write_file_status(). The file is checked first as Hexfile.load() "
            "checks it: ValueError (nothing sent) for a damaged file unless lenient=True.")
        .def(
            "write_image",
            [](CPyAWire& w, const CTarvikHexfile& image) { PyTarvikCall([&] { return w.C().WriteImage(image); }); },
            "image"_a, "The same for a Hexfile that is loaded already (the image is copied).")
        .def(
            "write_file_failure",
            [](CPyAWire& w) {
                const CTarvikClientAWire::SFileFailure failure = w.C().GetWriteFileFailure();
                return py::make_tuple(static_cast<int>(failure.m_eCause), failure.m_nResult, failure.m_nAddress);
            },
            "(cause, result, address) of the last file write that failed: cause 0 none, 1 the image could not "
            "be taken, 2 a block write could not be sent (result: its code), 3 the gateway reported a failed "
            "block write (result: its state), 4 reading back failed (result: its code), 5 the target differs.")
        .def(
            "write_file_status",
            [](CPyAWire& w) {
                CTarvikClientAWire::FileStep::EFileStep step = CTarvikClientAWire::FileStep::eNotStarted;
                unsigned char percent = 0;
                PyTarvikCall([&] { return w.C().GetWriteFileStatus(step, percent); });
                return py::make_tuple(static_cast<int>(step), percent);
            },
            "(step, percent) of the file write: step 1 writing, 2 verifying, 3 done, -1 failed. The end is "
            "reported once; then TarvikError 255.");
}

void BindAWire(py::module_& module)
{
    py::class_<CPyAWire> cls(module, "AWire", "A gateway that programs a microcontroller through its aWire interface.");
    PyTarvikBindBase<CPyAWire>(cls);
    cls.def(
           "set_config",
           [](CPyAWire& w, unsigned int v1, unsigned int v2, unsigned int pageSize, unsigned int v4,
              const std::string& text) { PyTarvikCall([&] { return w.C().SetConfig(v1, v2, pageSize, v4, text); }); },
           "value1"_a, "value2"_a, "page_size"_a, "value4"_a, "text"_a = "",
           "Configures the programmer; page_size is the target's write granularity.")
        .def(
            "get_config",
            [](CPyAWire& w) {
                unsigned int v1 = 0, v2 = 0, pageSize = 0, v4 = 0;
                std::string text;
                PyTarvikCall([&] { return w.C().GetConfig(v1, v2, pageSize, v4, text); });
                return py::make_tuple(v1, v2, pageSize, v4, py::bytes(text));
            },
            "(value1, value2, page_size, value4, text as bytes).")
        .def_property_readonly(
            "page_size", [](CPyAWire& w) { return w.C().GetPageSize(); },
            "The page size as last set or read; 0 until then.")
        .def(
            "read",
            [](CPyAWire& w, unsigned int address, long long length) {
                std::string buffer(PyTarvikLength(length), '\0');
                unsigned short count = 0;
                PyTarvikCall([&] {
                    return w.C().Read(address, static_cast<unsigned short>(buffer.size()), buffer.data(), count);
                });
                return py::bytes(buffer.data(), std::min<size_t>(count, buffer.size()));
            },
            "address"_a, "length"_a, "Reads target memory.")
        .def(
            "verify",
            [](CPyAWire& w, unsigned int address, const py::bytes& data) {
                const std::string_view buffer = PyTarvikBytes(data);
                int result;
                {
                    py::gil_scoped_release release;
                    result = w.C().Verify(address, static_cast<unsigned short>(buffer.size()), buffer.data());
                }
                if (result == CTarvikClientAWire::eResultUnknown)
                    return false;
                PyTarvikCheck(result);
                return true;
            },
            "address"_a, "data"_a, "Reads the range back: True when it equals data, False when it differs.")
        .def(
            "erase", [](CPyAWire& w, unsigned short value) { PyTarvikCall([&] { return w.C().Erase(value); }); },
            "value"_a = 0, "Erases the target.")
        .def(
            "erase_user_page", [](CPyAWire& w) { PyTarvikCall([&] { return w.C().EraseUserPage(); }); },
            "Erases the user page.");
    BindAWireBlocks(cls);
}

} // namespace

void PyTarvikBindProgrammers(py::module_& module)
{
    BindRenesas(module);
    BindFirmware(module);
    BindAWire(module);
}
