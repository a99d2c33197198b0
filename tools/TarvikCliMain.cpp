// tarvik: command-line access to Tarvik gateways, the simulator and memory images.
#include "TarvikCli.h"

#include <iostream>

int main(int argc, char** argv)
{
    CLI::App app{"tarvik: drive Tarvik network gateways from the command line"};
    app.require_subcommand(1);
    SCliGlobals globals;
    app.add_option("--host", globals.m_sHost, "Gateway host name or address (default: embedded simulator)");
    app.add_option("--port-index", globals.m_nPortIndex, "Port index of the gateway (0..99)")->check(CLI::Range(0, 99));
    app.add_option("--timeout", globals.m_nTimeoutMs, "Time-out in milliseconds");
    app.add_flag("--sim", globals.m_bSim, "Start the simulator inside this process and talk to it");
    app.add_flag("--trace", globals.m_bTrace, "Print every telegram sent and received");
    app.add_flag("--json", globals.m_bJson, "Print results as JSON");

    RegisterHexCommands(app, globals);

    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::RuntimeError& e)
    {
        if (*e.what() != '\0')
            std::cerr << "tarvik: " << e.what() << "\n";
        return e.get_exit_code();
    }
    catch (const CLI::ParseError& e)
    {
        return app.exit(e);
    }
    return 0;
}
