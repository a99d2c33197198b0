// The module _tarvik behind the package tarvik: one class per client family.
#include "PyTarvikCAN.h"
#include "PyTarvikClientBase.h"
#include "PyTarvikFamilies.h"

PYBIND11_MODULE(_tarvik, module)
{
    module.doc() = "Bindings of the tarvik gateway client library; import the package tarvik instead.";
    module.attr("__version__") = TARVIK_PY_VERSION;
    PyTarvikBindErrors(module);
    PyTarvikBindCAN(module);
    PyTarvikBindFamilies(module);
    PyTarvikBindProgrammers(module);
    PyTarvikBindTestSystem(module);
    PyTarvikBindHexfile(module);
    // Receive threads are stopped before the interpreter finalizes: they would wait for its GIL.
    module.import("atexit").attr("register")(module.attr("_close_all_can"));
}
