#ifndef TARVIK_PYTHON_PYTARVIKFAMILIES_H
#define TARVIK_PYTHON_PYTARVIKFAMILIES_H

#include "PyTarvikClientBase.h"

#include "tarvik/hexfile/TarvikHexfile.h"

#include <string>

// The clients without receive queues, bound per group.
// DIO, SPI, I2C and AD.
void PyTarvikBindFamilies(py::module_& module);
// Renesas, Firmware and AWire.
void PyTarvikBindProgrammers(py::module_& module);
// The test system's units: TestSystemCOM, TestSystemIO, TestSystemPWR, TestSystemRelay.
void PyTarvikBindTestSystem(py::module_& module);
// tarvik.Hexfile, the memory image.
void PyTarvikBindHexfile(py::module_& module);
// Loads path into image, checking every record: ValueError naming file:line and each problem
// (with lenient, UserWarnings and the image as it is), OSError when it cannot be read.
void PyTarvikHexLoad(CTarvikHexfile& image, const std::string& path, const std::string& format, bool lenient);

// The digital word pair that several families share.
template <class W, class Cls> void PyTarvikBindDigital(Cls& cls)
{
    cls.def(
           "read_digital",
           [](W& w) {
               unsigned int inputs = 0, outputs = 0;
               PyTarvikCall([&] { return w.C().ReadDigital(inputs, outputs); });
               return py::make_tuple(inputs, outputs);
           },
           "(inputs, outputs) of the digital lines as bit masks.")
        .def(
            "write_digital",
            [](W& w, unsigned int outputs) { PyTarvikCall([&] { return w.C().WriteDigital(outputs); }); },
            py::arg("outputs"), "Sets the digital outputs (bit mask).");
}

#endif
