// tarvik: command-line access to Tarvik gateways, the simulator and memory images.
#include "TarvikCli.h"

#include "tarvik/dll/TarvikDLL.h"

#include <exception>
#include <iostream>

int main(int argc, char** argv)
{
    CLI::App app{"tarvik: drive Tarvik network gateways from the command line.\n"
                 "Without --host every command runs against a simulator inside the process.",
                 "tarvik"};
    app.require_subcommand(1);
    // Global options may also follow the command: "tarvik spi xfer 9F+3 --trace".
    app.fallthrough();
    app.set_version_flag("--version", gsDLLVersionString);
    SCliGlobals globals;
    app.add_option("-H,--host", globals.m_sHost, "Gateway host name or address (default: embedded simulator)");
    app.add_option("-P,--port-index", globals.m_nPortIndex, "Port index of the gateway: port 4999 + type + 100 x index")
        ->capture_default_str()
        ->check(CLI::Range(0, 99));
    app.add_option("-t,--timeout", globals.m_nTimeoutMs, "Time-out in milliseconds")
        ->capture_default_str()
        ->check(CLI::Range(1u, 3600000u));
    app.add_flag("--sim", globals.m_bSim, "Start the simulator inside this process and talk to it");
    app.add_flag("--trace", globals.m_bTrace, "Print every telegram sent and received (on stderr)");
    app.add_flag("-j,--json", globals.m_bJson, "Print results as JSON");

    RegisterDeviceCommands(app, globals);
    RegisterSpiCommands(app, globals);
    RegisterErrcodeCommand(app, globals);
    RegisterSimCommand(app, globals);
    RegisterHexCommands(app, globals);
    RegisterTestSystemCommands(app, globals);

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
    catch (const std::exception& e)
    {
        std::cerr << "tarvik: " << e.what() << "\n";
        return eCliExitFailure;
    }
    return 0;
}
