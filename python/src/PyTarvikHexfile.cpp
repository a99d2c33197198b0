// tarvik.Hexfile: a memory image read from and written to Intel HEX, S-record and binary
// files, with the image operations of the tarvik tool (crop, fill, offset, merge, CRC, compare).
#include "PyTarvikFamilies.h"

#include "tarvik/hexfile/TarvikHexfile.h"
#include "tarvik/hexfile/TarvikImageCheck.h"
#include "tarvik/hexfile/TarvikImageOps.h"

#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

using namespace pybind11::literals;

namespace
{

using CHex = CTarvikHexfile;

CHex::EType ParseFormat(const std::string& format)
{
    if (format == "detect")
        return CHex::Detect;
    if (format == "intel" || format == "hex")
        return CHex::Intel;
    if (format == "motorola" || format == "srec")
        return CHex::Motorola;
    if (format == "binary" || format == "bin")
        return CHex::Binary;
    throw py::value_error("format is one of detect, intel, motorola (srec), binary");
}

const char* FormatName(CHex::EType type)
{
    switch (type)
    {
    case CHex::Intel: return "intel";
    case CHex::Motorola: return "motorola";
    case CHex::Binary: return "binary";
    default: return "detect";
    }
}

// The library's message without the question its dialogs append.
std::string Message(const CHex& image, const std::string& fallback)
{
    std::string text = image.GetErrorMessage();
    const size_t question = text.rfind("Ignore error?");
    if (question != std::string::npos)
        text.erase(question);
    while (!text.empty() && (text.back() == '\n' || text.back() == ' '))
        text.pop_back();
    return text.empty() ? fallback : text;
}

[[noreturn]] void RaiseOSError(const std::string& text)
{
    PyErr_SetString(PyExc_OSError, text.c_str());
    throw py::error_already_set();
}

void Load(CHex& image, const std::string& path, const std::string& format, bool lenient)
{
    PyTarvikHexLoad(image, path, format, lenient);
}

void Save(CHex& image, const std::string& path, const std::string& format)
{
    const CHex::EType type = ParseFormat(format);
    if (type == CHex::Detect)
        throw py::value_error("save needs a format: intel, motorola or binary");
    uint32_t result;
    {
        py::gil_scoped_release release;
        result = image.SaveFile(path.c_str(), type);
    }
    if (result == CHex::ResultOk && type == CHex::Motorola)
    {
        // The library writes data records only; a reader needs the end to know the file is whole.
        std::FILE* file = std::fopen(path.c_str(), "ab");
        const std::string end = CTarvikImageOps::EndRecord(image) + "\n";
        const bool written = file != nullptr && std::fwrite(end.data(), 1, end.size(), file) == end.size();
        if (file == nullptr || std::fclose(file) != 0 || !written)
            RaiseOSError("cannot save " + path + ": " + std::strerror(errno));
        return;
    }
    if (result == CHex::ResultOk)
        return;
    uint64_t lowest = 0, highest = 0;
    // A binary file holds one block at address 0: the library refuses anything else.
    const bool refused = type == CHex::Binary && CTarvikImageOps::Bounds(image, lowest, highest) &&
                         (lowest != 0 || CTarvikImageOps::SortedBlocks(image).size() > 1);
    if (refused)
        throw py::value_error(Message(image, "a binary file holds one block at address 0"));
    RaiseOSError(Message(image, "cannot save " + path));
}

py::list Blocks(const CHex& image)
{
    py::list out;
    for (const CTarvikHexfile::SMemoryBlock* block : CTarvikImageOps::SortedBlocks(image))
        out.append(
            py::make_tuple(block->m_nStartAddress, py::bytes(block->m_pData, static_cast<size_t>(block->m_nLength))));
    return out;
}

void Add(CHex& image, uint64_t address, const py::bytes& data)
{
    const std::string_view bytes = PyTarvikBytes(data, CHex::m_nMaxAddressSupported);
    if (address > CHex::m_nMaxAddressSupported || bytes.size() > CHex::m_nMaxAddressSupported - address + 1)
        throw py::value_error("the block does not fit below 4 GiB");
    image.AddMemoryBlock(static_cast<unsigned int>(address), bytes.data(), static_cast<unsigned int>(bytes.size()));
    // Adding keeps the minimum as it was; a binary save tests it.
    image.RecalcMinMax();
}

void CheckRange(uint64_t first, uint64_t last)
{
    if (first > last || last > CHex::m_nMaxAddressSupported)
        throw py::value_error("the range is first <= last < 4 GiB");
}

// The dump lines of the image's range, each with its address.
std::string Dump(const CHex& image, unsigned int width)
{
    uint64_t lowest = 0, highest = 0;
    if (width == 0 || width > 256)
        throw py::value_error("bytes_per_line is 1..256");
    if (!CTarvikImageOps::Bounds(image, lowest, highest))
        return std::string();
    const uint64_t start = lowest - lowest % width;
    const uint64_t lines = (highest - start) / width + 1;
    std::vector<char> text(lines * image.GetNumberOfBytesNeedForLine(width) + 1, '\0');
    image.GetPrintDump(text.data(), width, start, highest);
    std::string out;
    const char* line = text.data();
    for (uint64_t address = start; *line != '\0'; address += width)
    {
        const char* newline = std::strchr(line, '\n');
        const size_t length = newline != nullptr ? static_cast<size_t>(newline - line) : std::strlen(line);
        char prefix[16];
        std::snprintf(prefix, sizeof(prefix), "%08" PRIX64 ":", address);
        out.append(prefix).append(line, length).append("\n");
        line += length + (newline != nullptr ? 1 : 0);
    }
    return out;
}

std::unique_ptr<CHex> Merge(const std::vector<CHex*>& images)
{
    std::vector<const CHex*> in(images.begin(), images.end());
    auto out = std::make_unique<CHex>();
    CTarvikImageOps::Merge(in, *out);
    return out;
}

py::tuple Compare(const CHex& a, const CHex& b, size_t keep)
{
    std::vector<CTarvikImageOps::SDifference> first;
    const uint64_t count = CTarvikImageOps::Compare(a, b, keep, first);
    py::list differences;
    for (const CTarvikImageOps::SDifference& d : first)
        differences.append(py::make_tuple(d.m_nAddress, d.m_nByteA, d.m_nByteB));
    return py::make_tuple(count, differences);
}

void BindEdits(py::class_<CHex>& cls)
{
    cls.def(
           "crop",
           [](const CHex& image, uint64_t first, uint64_t last) {
               CheckRange(first, last);
               auto out = std::make_unique<CHex>();
               CTarvikImageOps::Crop(image, first, last, *out);
               return out;
           },
           "first"_a, "last"_a, "A new image with the bytes from first to last.")
        .def(
            "fill",
            [](const CHex& image, uint64_t first, uint64_t last, unsigned char byte) {
                CheckRange(first, last);
                auto out = std::make_unique<CHex>();
                CTarvikImageOps::Fill(image, first, last, byte, *out);
                return out;
            },
            "first"_a, "last"_a, "byte"_a = 0xFF,
            "A new image with every address from first to last that holds no byte set to byte.")
        .def(
            "offset",
            [](const CHex& image, int64_t delta) {
                uint64_t lowest = 0, highest = 0;
                if (CTarvikImageOps::Bounds(image, lowest, highest) &&
                    (static_cast<int64_t>(lowest) + delta < 0 ||
                     static_cast<int64_t>(highest) + delta > static_cast<int64_t>(CHex::m_nMaxAddressSupported)))
                    throw py::value_error("the image would leave the address range");
                auto out = std::make_unique<CHex>();
                CTarvikImageOps::Offset(image, delta, *out);
                return out;
            },
            "delta"_a, "A new image moved by delta.")
        .def_static("merge", &Merge, "images"_a,
                    "A new image of the images' bytes; where they overlap, the later wins.")
        .def(
            "crc32", [](const CHex& image) { return CTarvikImageOps::DataCrc(image); },
            "CRC-32 of the bytes in address order; gaps add nothing.")
        .def(
            "range_crc32",
            [](const CHex& image, uint64_t first, uint64_t last, unsigned char fill) {
                CheckRange(first, last);
                return CTarvikImageOps::RangeCrc(image, first, last, fill);
            },
            "first"_a, "last"_a, "fill"_a = 0xFF, "CRC-32 of every address from first to last, gaps as fill.")
        .def("compare", &Compare, "other"_a, "keep"_a = 16,
             "(count, [(address, byte_a, byte_b), ...]) of the addresses where the images differ; a missing byte is "
             "-1.");
}

void BindImage(py::class_<CHex>& cls)
{
    cls.def("blocks", &Blocks, "[(address, bytes), ...] in address order.")
        .def("add", &Add, "address"_a, "data"_a,
             "Adds a block as it is (no merging with its neighbours; keep blocks from overlapping).")
        .def("clear", &CHex::ClearMemoryBlocks, "Removes every block.")
        .def_property_readonly("total_bytes", &CHex::GetTotalBytes, "Number of bytes the blocks hold.")
        .def("__len__", &CHex::GetTotalBytes)
        .def(
            "bounds",
            [](const CHex& image) -> py::object {
                uint64_t lowest = 0, highest = 0;
                if (!CTarvikImageOps::Bounds(image, lowest, highest))
                    return py::none();
                return py::make_tuple(lowest, highest);
            },
            "(lowest, highest) address that holds a byte, or None for an empty image.")
        .def(
            "__getitem__",
            [](const CHex& image, uint64_t address) { return static_cast<unsigned char>(image.GetDataByte(address)); },
            "address"_a, "The byte at address; 0 where no block holds one.")
        .def(
            "__setitem__",
            [](CHex& image, uint64_t address, unsigned char value) {
                if (address > CHex::m_nMaxAddressSupported)
                    throw py::value_error("address above 4 GiB");
                image.SetDataByte(address, static_cast<char>(value));
            },
            "address"_a, "value"_a, "Sets a byte; a new one becomes a block of its own.")
        .def("dump", &Dump, "bytes_per_line"_a = 16, "Hex dump lines, each with its address.");
}

} // namespace

void PyTarvikBindHexfile(py::module_& module)
{
    py::class_<CHex> cls(module, "Hexfile",
                         "A memory image: blocks of bytes at 32-bit addresses, read from and written to Intel HEX, "
                         "Motorola S-record and binary files.");
    cls.def(py::init<>())
        .def(py::init([](const std::string& path, const std::string& format, bool lenient) {
                 auto image = std::make_unique<CHex>();
                 Load(*image, path, format, lenient);
                 return image;
             }),
             "path"_a, "format"_a = "detect", "lenient"_a = false, "Loads a file (see load()).")
        .def("load", &Load, "path"_a, "format"_a = "detect", "lenient"_a = false,
             "Replaces the image by a file's: format detect, intel, motorola or binary. Every record is checked: "
             "ValueError naming file:line and each problem (checksums, byte counts, non-hex characters, a "
             "missing end record, S5/S6 counts, overlapping records); with lenient=True the problems are "
             "warnings (UserWarning) and the image is taken as it is. OSError when the file cannot be read.")
        .def("save", &Save, "path"_a, "format"_a = "intel",
             "Writes the image: intel, motorola (with a final S9/S8/S7 record) or binary (one block at 0 only). "
             "OSError on failure.")
        .def_property_readonly("filename", &CHex::GetFilename, "The file last loaded or saved.")
        .def_property_readonly(
            "format", [](const CHex& image) { return FormatName(image.m_eType); },
            "The format of the file last loaded.");
    BindImage(cls);
    BindEdits(cls);
}

void PyTarvikHexLoad(CTarvikHexfile& image, const std::string& path, const std::string& format, bool lenient)
{
    const CHex::EType type = ParseFormat(format);
    CTarvikImageCheck check;
    {
        py::gil_scoped_release release;
        check.LoadFile(image, path.c_str(), type);
    }
    if (check.GetProblemCount() == 0)
        return;
    std::string text;
    for (const CTarvikImageCheck::SProblem& problem : check.GetProblems())
    {
        if (problem.m_eKind == CTarvikImageCheck::KindOpen)
        {
            image.ClearMemoryBlocks();
            RaiseOSError(problem.Describe());
        }
        if (lenient)
        {
            if (PyErr_WarnEx(PyExc_UserWarning, problem.Describe().c_str(), 1) != 0)
                throw py::error_already_set();
            continue;
        }
        text += (text.empty() ? "" : "\n") + problem.Describe();
    }
    if (lenient)
        return;
    image.ClearMemoryBlocks();
    if (check.GetProblemCount() > check.GetProblems().size())
        text += "\n" + path + ": " + std::to_string(check.GetProblemCount() - check.GetProblems().size()) +
                " more problems";
    throw py::value_error(text + "\n(lenient=True takes the file as it is)");
}
