// tarvik.DIO, tarvik.SPI, tarvik.I2C and tarvik.AD: the bus and I/O gateways.
#include "PyTarvikFamilies.h"

#include "tarvik/clients/TarvikClientAD.h"
#include "tarvik/clients/TarvikClientDIO.h"
#include "tarvik/clients/TarvikClientI2C.h"
#include "tarvik/clients/TarvikClientSPI.h"

#include <vector>

using namespace pybind11::literals;

namespace
{

using CPyDIO = CPyClient<CTarvikClientDIO>;
using CPySPI = CPyClient<CTarvikClientSPI>;
using CPyI2C = CPyClient<CTarvikClientI2C>;
using CPyAD = CPyClient<CTarvikClientAD>;

// The answer of an SPI transfer or sequence cannot exceed what one telegram carries.
constexpr size_t kMaxSPI = 65527;

void BindDIO(py::module_& module)
{
    py::class_<CPyDIO> dio(module, "DIO", "A digital I/O gateway.");
    PyTarvikBindBase<CPyDIO>(dio);
    dio.def(
           "read",
           [](CPyDIO& w) {
               unsigned int inputs = 0, outputs = 0;
               PyTarvikCall([&] { return w.C().Read(inputs, outputs); });
               return py::make_tuple(inputs, outputs);
           },
           "(inputs, outputs) as bit masks.")
        .def(
            "write", [](CPyDIO& w, unsigned int outputs) { PyTarvikCall([&] { return w.C().Write(outputs); }); },
            "outputs"_a, "Sets the outputs (bit mask).");
}

py::bytes Transfer(CPySPI& w, const py::bytes& data, std::optional<long long> recvLen)
{
    const std::string_view send = PyTarvikBytes(data, kMaxSPI);
    const unsigned short length = PyTarvikLength(recvLen ? *recvLen : static_cast<long long>(send.size()), kMaxSPI);
    std::string recv(length, '\0');
    PyTarvikCall(
        [&] { return w.C().DataReq(send.data(), static_cast<unsigned short>(send.size()), recv.data(), length); });
    return py::bytes(recv);
}

py::bytes Sequence(CPySPI& w, const py::bytes& sequence, long long outLen)
{
    const std::string_view seq = PyTarvikBytes(sequence);
    std::string out(PyTarvikLength(outLen), '\0');
    PyTarvikCall([&] {
        return w.C().SequenceReq(seq.data(), static_cast<unsigned short>(seq.size()), out.data(),
                                 static_cast<unsigned short>(out.size()));
    });
    return py::bytes(out);
}

void BindSPI(py::module_& module)
{
    py::class_<CPySPI> spi(module, "SPI", "An SPI gateway: bus settings, full-duplex transfers, sequences.");
    PyTarvikBindBase<CPySPI>(spi);
    PyTarvikBindDigital<CPySPI>(spi);
    spi.def(
           "set_globals",
           [](CPySPI& w, unsigned int rate, unsigned char s1, unsigned char s2, unsigned char s3) {
               PyTarvikCall([&] { return w.C().SetGlobals(rate, s1, s2, s3); });
           },
           "rate"_a, "setting1"_a = 0, "setting2"_a = 0, "setting3"_a = 0,
           "Sets the bus rate and the three setting bytes of the gateway.")
        .def(
            "get_globals",
            [](CPySPI& w) {
                unsigned int rate = 0;
                unsigned char s1 = 0, s2 = 0, s3 = 0;
                PyTarvikCall([&] { return w.C().GetGlobals(rate, s1, s2, s3); });
                return py::make_tuple(rate, s1, s2, s3);
            },
            "(rate, setting1, setting2, setting3).")
        .def("transfer", &Transfer, "data"_a, "recv_len"_a = py::none(),
             "Clocks out data (zero-padded to recv_len when that is larger) and returns the recv_len "
             "bytes clocked in (default: as many as sent).")
        .def("sequence", &Sequence, "sequence"_a, "out_len"_a,
             "Runs a sequence (a device-side script of SPI operations) and returns out_len bytes of "
             "its answer from the result byte on.")
        .def(
            "sequence_start",
            [](CPySPI& w, const py::bytes& sequence) {
                const std::string_view seq = PyTarvikBytes(sequence);
                short id = 0;
                PyTarvikCall(
                    [&] { return w.C().SequenceReq(seq.data(), static_cast<unsigned short>(seq.size()), &id); });
                return id;
            },
            "sequence"_a, "Starts a sequence without waiting; returns the id for sequence_result().")
        .def(
            "sequence_result",
            [](CPySPI& w, short id, long long outLen) {
                std::string out(PyTarvikLength(outLen), '\0');
                PyTarvikCall(
                    [&] { return w.C().SequenceGetCnf(id, out.data(), static_cast<unsigned short>(out.size())); });
                return py::bytes(out);
            },
            "id"_a, "out_len"_a, "Waits for the answer of a started sequence: out_len bytes after its result byte.")
        .def_static(
            "to_offset",
            [](unsigned int offset, int format) {
                if (format < eOffset1Byte || format > eOffset4Byte)
                    throw py::value_error("format is 1..4 address bytes");
                return py::bytes(CTarvikClientSPI::ToOffset(offset, static_cast<EOffsetFormat>(format)));
            },
            "offset"_a, "format"_a, "The format (1..4) low bytes of an EEPROM offset, most significant first.")
        .def_static("eeprom_slave_address", &CTarvikClientSPI::GetEEPROMSlaveAddress, "sub_address"_a, "offset"_a,
                    "flags"_a,
                    "Slave address of an EEPROM whose high offset bits ride in the address: flags bits 0..7 "
                    "= word address bits, bits 8..9 = extra bits.");
}

// One step of tarvik.I2C.sequence: (address byte, bytes to write) or (address byte, length to read).
struct SI2CStep
{
    unsigned short m_nCommand;
    std::string m_sBuffer;
    bool m_bRead;
};

py::list I2CSequence(CPyI2C& w, const py::list& steps)
{
    std::vector<SI2CStep> owned;
    owned.reserve(steps.size());
    for (py::handle item : steps)
    {
        auto step = item.cast<py::tuple>();
        if (step.size() != 2)
            throw py::value_error("a step is (address, bytes) or (address, length)");
        const auto command = step[0].cast<unsigned short>();
        if (py::isinstance<py::bytes>(step[1]))
            owned.push_back({command, std::string(PyTarvikBytes(step[1].cast<py::bytes>())), false});
        else
            owned.push_back({command, std::string(PyTarvikLength(step[1].cast<long long>()), '\0'), true});
    }
    if (owned.size() > 65535)
        throw py::value_error("too many steps");
    std::vector<CTarvikClientI2C::I2CCommand> commands;
    commands.reserve(owned.size());
    for (SI2CStep& step : owned)
        commands.push_back(
            {step.m_nCommand, static_cast<unsigned short>(step.m_sBuffer.size()), step.m_sBuffer.data()});
    unsigned short errorPos = 0;
    int result;
    {
        py::gil_scoped_release release;
        result = w.C().WriteSequence(commands.data(), static_cast<unsigned short>(commands.size()), errorPos);
    }
    PyTarvikCheck(result, py::dict("error_pos"_a = errorPos));
    py::list reads;
    for (const SI2CStep& step : owned)
        if (step.m_bRead)
            reads.append(py::bytes(step.m_sBuffer));
    return reads;
}

void BindI2CBus(py::class_<CPyI2C>& i2c)
{
    i2c.def(
           "set_baudrate", [](CPyI2C& w, unsigned int rate) { PyTarvikCall([&] { return w.C().SetBaudrate(rate); }); },
           "rate"_a, "Sets the bus rate: 100 and 400 are kHz, any other value bits per second.")
        .def(
            "get_baudrate",
            [](CPyI2C& w) {
                unsigned int rate = 0;
                PyTarvikCall([&] { return w.C().GetBaudrate(rate); });
                return rate;
            },
            "The bus rate the gateway reports.")
        .def_property_readonly(
            "current_baudrate", [](CPyI2C& w) { return w.C().GetCurrentBaudrate(); },
            "The rate last set or read (100000 after construction).")
        .def(
            "reset", [](CPyI2C& w) { PyTarvikCall([&] { return w.C().Reset(); }); }, "Resets the bus master.")
        .def(
            "read",
            [](CPyI2C& w, unsigned short slave, long long length) {
                std::string buffer(PyTarvikLength(length), '\0');
                unsigned short received = 0;
                PyTarvikCall([&] {
                    return w.C().Read(slave, buffer.data(), static_cast<unsigned short>(buffer.size()), received);
                });
                return py::bytes(buffer.data(), std::min<size_t>(received, buffer.size()));
            },
            "slave"_a, "length"_a, "Reads up to length bytes from a slave; returns the bytes received.")
        .def(
            "write",
            [](CPyI2C& w, unsigned short slave, const py::bytes& data) {
                const std::string_view buffer = PyTarvikBytes(data);
                unsigned short errorPos = 0;
                int result;
                {
                    py::gil_scoped_release release;
                    result = w.C().Write(slave, buffer.data(), static_cast<unsigned short>(buffer.size()), errorPos);
                }
                PyTarvikCheck(result, py::dict("error_pos"_a = errorPos));
            },
            "slave"_a, "data"_a, "Writes data to a slave. A failure's TarvikError carries error_pos.")
        .def(
            "raw_start", [](CPyI2C& w) { PyTarvikCall([&] { return w.C().RAWStart(); }); },
            "Enters the bit-level mode (start condition).")
        .def(
            "raw_send",
            [](CPyI2C& w, unsigned char byte, unsigned char flags) {
                PyTarvikCall([&] { return w.C().RAWSend(byte, flags); });
            },
            "byte"_a, "flags"_a = 0, "Sends one byte in the bit-level mode.")
        .def(
            "raw_get",
            [](CPyI2C& w, unsigned char flags) {
                unsigned char byte = 0;
                PyTarvikCall([&] { return w.C().RAWGet(flags, byte); });
                return byte;
            },
            "flags"_a = 0, "Receives one byte in the bit-level mode.")
        .def(
            "raw_stop", [](CPyI2C& w) { PyTarvikCall([&] { return w.C().RAWStop(); }); },
            "Leaves the bit-level mode (stop condition).")
        .def(
            "write_sequence",
            [](CPyI2C& w, const py::bytes& sequence, long long readLen) {
                const std::string_view seq = PyTarvikBytes(sequence);
                std::string buffer(PyTarvikLength(readLen), '\0');
                unsigned short received = 0, errorPos = 0;
                int result;
                {
                    py::gil_scoped_release release;
                    result = w.C().WriteSequence(seq.data(), static_cast<unsigned short>(seq.size()), buffer.data(),
                                                 static_cast<unsigned short>(buffer.size()), received, errorPos);
                }
                PyTarvikCheck(result, py::dict("error_pos"_a = errorPos));
                return py::bytes(buffer.data(), std::min<size_t>(received, buffer.size()));
            },
            "sequence"_a, "read_len"_a,
            "Runs a sequence in the device's own encoding; returns the bytes read (at most read_len).")
        .def("sequence", &I2CSequence, "steps"_a,
             "Runs steps [(address_byte, bytes) to write or (address_byte | 1, length) to read]; returns the "
             "read steps' bytes. Every read step is filled from the start of the bytes read.");
}

void BindI2CEEProm(py::class_<CPyI2C>& i2c)
{
    i2c.def(
           "write_eeprom",
           [](CPyI2C& w, unsigned short deviceSelect, unsigned int offset, unsigned short type, const py::bytes& data,
              std::optional<unsigned short> pollTime) {
               const std::string_view buffer = PyTarvikBytes(data);
               const auto length = static_cast<unsigned short>(buffer.size());
               PyTarvikCall([&] {
                   return pollTime
                              ? w.C().WriteEEPromPollAck(deviceSelect, offset, type, buffer.data(), length, *pollTime)
                              : w.C().WriteEEProm(deviceSelect, offset, type, buffer.data(), length);
               });
           },
           "device_select"_a, "offset"_a, "eeprom_type"_a, "data"_a, "poll_time"_a = py::none(),
           "Writes data at offset in one request (keep it inside one page). With poll_time the gateway then "
           "polls the chip until it acknowledges.")
        .def(
            "read_eeprom",
            [](CPyI2C& w, unsigned short deviceSelect, unsigned int offset, unsigned short type, long long length) {
                std::string buffer(PyTarvikLength(length), '\0');
                unsigned short received = 0;
                PyTarvikCall([&] {
                    return w.C().ReadEEProm(deviceSelect, offset, type, buffer.data(),
                                            static_cast<unsigned short>(buffer.size()), received);
                });
                return py::bytes(buffer.data(), std::min<size_t>(received, buffer.size()));
            },
            "device_select"_a, "offset"_a, "eeprom_type"_a, "length"_a, "Reads length bytes at offset.")
        .def_static(
            "to_offset",
            [](unsigned int offset, unsigned short type) {
                return py::bytes(CTarvikClientI2C::ToOffset(offset, type));
            },
            "offset"_a, "eeprom_type"_a,
            "The offset masked to the chip's address bits, four bytes, most significant first.")
        .def_static("eeprom_slave_address", &CTarvikClientI2C::GetEEPROMSlaveAddress, "device_select"_a, "offset"_a,
                    "eeprom_type"_a, "The chip's slave address (write form) for a memory offset.")
        .def_static("address_byte_count", &CTarvikClientI2C::GetAddressByteCount, "eeprom_type"_a,
                    "Number of memory-address bytes after the slave address: 1 or 2.");
}

void BindI2C(py::module_& module)
{
    py::class_<CPyI2C> i2c(module, "I2C",
                           "An I2C gateway: bus master, bit-level mode, sequences and 24Cxx EEPROMs. EEPROM type "
                           "word: bits 0-7 memory-address bits, bits 8-9 high address bits in the slave address, "
                           "bit 10 those above the chip-select bits.");
    PyTarvikBindBase<CPyI2C>(i2c);
    PyTarvikBindDigital<CPyI2C>(i2c);
    BindI2CBus(i2c);
    BindI2CEEProm(i2c);
}

void BindAD(py::module_& module)
{
    py::class_<CPyAD> ad(module, "AD", "An analog/digital gateway: digital words and converter channels.");
    PyTarvikBindBase<CPyAD>(ad);
    PyTarvikBindDigital<CPyAD>(ad);
    ad.def(
          "read_digital_input",
          [](CPyAD& w) {
              unsigned int in0 = 0, in1 = 0, in2 = 0;
              PyTarvikCall([&] { return w.C().ReadDigitalInput(in0, in1, in2); });
              return py::make_tuple(in0, in1, in2);
          },
          "The input word's three low bytes (input0, input1, input2).")
        .def(
            "read",
            [](CPyAD& w) {
                std::vector<unsigned int> values;
                PyTarvikCall([&] { return w.C().Read(values); });
                return values;
            },
            "The converter values, one int per channel.");
}

} // namespace

void PyTarvikBindFamilies(py::module_& module)
{
    BindDIO(module);
    BindSPI(module);
    BindI2C(module);
    BindAD(module);
}
