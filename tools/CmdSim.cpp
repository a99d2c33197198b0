// sim: the gateway simulator in the foreground until SIGINT or SIGTERM, with the
// options of the tarvik-sim program.
#include "TarvikCli.h"

#include "sim/TarvikSimRunner.h"

#include <iostream>
#include <memory>

void RegisterSimCommand(CLI::App& app, SCliGlobals&)
{
    auto options = std::make_shared<STarvikSimOptions>();
    CLI::App* cmd = app.add_subcommand("sim", "Run the gateway simulator in the foreground until interrupted "
                                              "(device type t listens on port 4999 + t + 100 * index)");
    CTarvikSimRunner::AddOptions(*cmd, *options);
    cmd->callback([options] {
        std::string error;
        int result = CTarvikSimRunner::Run(*options, std::cout, error);
        if (result != CTarvikSimRunner::eExitOk)
            CliFail("sim: " + error, result == CTarvikSimRunner::eExitUsage ? eCliExitUsage : eCliExitFailure);
    });
}
