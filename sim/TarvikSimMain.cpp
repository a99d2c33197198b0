// tarvik-sim: emulates Tarvik gateway devices on TCP until SIGINT or SIGTERM.
#include "sim/TarvikSimRunner.h"

#include <cstdio>
#include <iostream>

namespace
{
int Run(int argc, char** argv)
{
    CLI::App app{"Tarvik gateway simulator: answers as gateway devices on TCP until SIGINT or SIGTERM.\n"
                 "Device type t listens on port 4999 + t + 100 * index."};
    STarvikSimOptions options;
    CTarvikSimRunner::AddOptions(app, options);
    CLI11_PARSE(app, argc, argv);
    std::string error;
    int result = CTarvikSimRunner::Run(options, std::cout, error);
    if (result != CTarvikSimRunner::eExitOk)
        std::fprintf(stderr, "tarvik-sim: %s\n", error.c_str());
    return result;
}
} // namespace

int main(int argc, char** argv)
{
    try
    {
        return Run(argc, argv);
    }
    catch (const std::exception& e)
    {
        std::fprintf(stderr, "tarvik-sim: %s\n", e.what());
        return 1;
    }
}
