// tarvik-sim: emulates Tarvik gateway devices on TCP until SIGINT or SIGTERM.
// Exit codes: 0 stopped by a signal, --help, --version; 1 a device could not listen;
// 2 unusable arguments.
#include "sim/TarvikSimRunner.h"
#include "tarvik/core/TarvikVersionText.h"

#include <cstdio>
#include <iostream>

namespace
{
const char* const kProgram = "tarvik-sim";

// The parser's finding on one line, in the words of the tarvik tool.
std::string UsageMessage(const CLI::App& app, const CLI::ParseError& error)
{
    std::vector<std::string> extras = app.remaining();
    if (extras.empty())
        return error.what();
    const std::string& first = extras.front();
    if (first.size() > 1 && first[0] == '-')
        return "unknown option '" + first + "'";
    return "unexpected argument '" + first + "'";
}

int Run(int argc, char** argv)
{
    CLI::App app{"Tarvik gateway simulator: answers as gateway devices on TCP until SIGINT or SIGTERM.\n"
                 "Device type t listens on port 4999 + t + 100 * index.",
                 kProgram};
    app.set_version_flag("--version", TarvikVersionText(kProgram));
    STarvikSimOptions options;
    CTarvikSimRunner::AddOptions(app, options);
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError& e)
    {
        if (e.get_exit_code() == 0)
            return app.exit(e);
        std::fprintf(stderr, "%s: %s\nRun '%s --help' for usage.\n", kProgram, UsageMessage(app, e).c_str(), kProgram);
        return CTarvikSimRunner::eExitUsage;
    }
    std::string error;
    int result = CTarvikSimRunner::Run(options, std::cout, error);
    if (result != CTarvikSimRunner::eExitOk)
        std::fprintf(stderr, "%s: %s\n", kProgram, error.c_str());
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
        std::fprintf(stderr, "%s: %s\n", kProgram, e.what());
        return CTarvikSimRunner::eExitServer;
    }
}
