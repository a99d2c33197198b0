#include "PyTarvikFamilies.h"

#include "tarvik/clients/TarvikClientDIO.h"

using namespace pybind11::literals;

namespace
{

template <class Fn>
void Call(Fn fn)
{
    int result;
    {
        py::gil_scoped_release release;
        result = fn();
    }
    PyTarvikCheck(result);
}

using CPyDIO = CPyClient<CTarvikClientDIO>;

} // namespace

void PyTarvikBindFamilies(py::module_& module)
{
    py::class_<CPyDIO> dio(module, "DIO", "A digital I/O gateway.");
    PyTarvikBindBase<CPyDIO>(dio);
    dio.def(
           "read",
           [](CPyDIO& w) {
               unsigned int inputs = 0, outputs = 0;
               Call([&] { return w.C().Read(inputs, outputs); });
               return py::make_tuple(inputs, outputs);
           },
           "(inputs, outputs) as bit masks.")
        .def(
            "write", [](CPyDIO& w, unsigned int outputs) { Call([&] { return w.C().Write(outputs); }); },
            "outputs"_a, "Sets the outputs (bit mask).");
}
