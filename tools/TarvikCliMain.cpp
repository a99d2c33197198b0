// tarvik: command-line access to Tarvik gateways, the simulator and memory images.
//
// Exit codes: 0 success; 1 a request, the connection or a file failed; 2 the
// arguments are unusable (unknown command or option, missing or bad value), also
// when no command is given. --help and --version exit 0.
#include "CliFormat.h"
#include "TarvikCli.h"

#include "tarvik/core/TarvikVersionText.h"

#include <cstdio>
#include <exception>
#include <ios>
#include <iostream>
#include <new>
#include <system_error>

namespace
{
const char* const kProgram = "tarvik";
const char* const kGlobalGroup = "Global options";

// --json must shape even the error about the arguments themselves, so it is looked
// for before the parser has judged them.
bool WantsJson(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i)
    {
        std::string arg = argv[i];
        if (arg == "--")
            break;
        if (arg == "--json" || arg == "-j")
            return true;
    }
    return false;
}

void AddGlobalOptions(CLI::App& app, SCliGlobals& globals)
{
    app.add_option("-H,--host", globals.m_sHost, "Gateway as HOST, HOST:PORT or [IPv6]:PORT")->envname("TARVIK_HOST");
    app.add_option("-p,--port", globals.m_nPort, "TCP port of the gateway (default: from the port index)")
        ->check(CLI::Range(1, 65535));
    app.add_option("-P,--port-index", globals.m_nPortIndex, "Port index of the gateway: port 4999 + type + 100 x index")
        ->capture_default_str()
        ->check(CLI::Range(0, 99));
    app.add_option("-t,--timeout", globals.m_nTimeoutMs, "Time-out in milliseconds")
        ->capture_default_str()
        ->check(CLI::Range(1u, 3600000u));
    app.add_flag("--sim", globals.m_bSim,
                 "Talk to a simulator started inside this process instead of a gateway (each run has its own)");
    app.add_flag("--trace", globals.m_bTrace, "Print every telegram sent and received (on stderr)");
    app.add_flag("-j,--json", globals.m_bJson, "Print results and errors as JSON, one object per line on stdout");
    for (CLI::Option* option : app.get_options())
        if (option != app.get_help_ptr() && option != app.get_version_ptr())
            option->group(kGlobalGroup);
}

std::string GlobalOptionsHelp(const CLI::App& root)
{
    auto global = [](const CLI::Option* option) { return option->get_group() == kGlobalGroup; };
    std::string group = CLI::Formatter().make_group(kGlobalGroup, false, root.get_options(global));
    // The formatter frames a group with blank lines; a footer brings its own.
    return CLI::detail::trim_copy(group, "\n");
}

// Global options may follow the command ("tarvik spi xfer 9F+3 --trace"), so every
// command's help lists them too, with their defaults.
void ShowGlobalsInHelp(const CLI::App& root, CLI::App& app)
{
    for (CLI::App* sub : app.get_subcommands([](CLI::App*) { return true; }))
    {
        // "sim" has options of the same names for the simulator it runs.
        if (sub->get_name() == "sim")
            continue;
        sub->footer(std::function<std::string()>([&root] { return GlobalOptionsHelp(root); }));
        ShowGlobalsInHelp(root, *sub);
    }
}

// The command that the parser reached: "spi xfer" is the app of xfer.
CLI::App& ReachedCommand(CLI::App& app)
{
    std::vector<CLI::App*> parsed = app.get_subcommands();
    return parsed.empty() ? app : ReachedCommand(*parsed.front());
}

std::string CommandPath(const CLI::App& command)
{
    std::string path;
    for (const CLI::App* app = &command; app->get_parent() != nullptr; app = app->get_parent())
        path = app->get_name() + (path.empty() ? "" : " " + path);
    return path;
}

std::string SubcommandNames(CLI::App& command)
{
    std::string names;
    for (const CLI::App* sub : command.get_subcommands([](CLI::App*) { return true; }))
        names += (names.empty() ? "" : ", ") + sub->get_name();
    return names;
}

bool NeedsSubcommand(CLI::App& command)
{
    return command.get_require_subcommand_min() > 0 && command.get_subcommands().empty();
}

// CLI11's own words for a parse error, turned into the tool's: the command it
// concerns and what was wrong, on one line.
std::string UsageMessage(CLI::App& app, CLI::App& command, const CLI::ParseError& error)
{
    std::string path = CommandPath(command);
    std::string prefix = path.empty() ? "" : path + ": ";
    std::vector<std::string> extras = app.remaining(true);
    if (!extras.empty())
    {
        const std::string& first = extras.front();
        if (first.size() > 1 && first[0] == '-')
            return prefix + "unknown option '" + first + "'";
        if (!command.get_subcommands([](CLI::App*) { return true; }).empty())
            return "unknown command '" + (path.empty() ? "" : path + " ") + first + "'";
        return prefix + "unexpected argument '" + first + "'";
    }
    if (NeedsSubcommand(command))
        return prefix + "missing command (one of " + SubcommandNames(command) + ")";
    return prefix + error.what();
}

int ReportParseError(CLI::App& app, const CLI::ParseError& error, bool json)
{
    if (error.get_exit_code() == 0)
        return app.exit(error); // --help, --version
    CLI::App& command = ReachedCommand(app);
    if (!json && &command == &app && NeedsSubcommand(app) && app.remaining().empty())
    {
        std::cout << app.help();
        return eCliExitUsage;
    }
    std::string path = CommandPath(command);
    CCliError usage(UsageMessage(app, command, error), eCliExitUsage);
    CliReportError(usage, json, std::string(kProgram) + (path.empty() ? "" : " " + path) + " --help");
    return eCliExitUsage;
}

// A command that failed inside its callback: arguments it found unusable get the same
// hint as the parser's findings.
int ReportCommandError(CLI::App& app, const CCliError& error, bool json)
{
    std::string path = CommandPath(ReachedCommand(app));
    std::string help = error.GetExitCode() == eCliExitUsage ? std::string(kProgram) + " " + path + " --help" : "";
    CliReportError(error, json, help);
    return error.GetExitCode();
}
// A library or runtime exception that no command turned into its own message: its text
// ("basic_filebuf::underflow ...") means nothing to a user, its cause may.
std::string UnexpectedMessage(const std::exception& error)
{
    if (dynamic_cast<const std::bad_alloc*>(&error) != nullptr)
        return "out of memory";
    if (const auto* system = dynamic_cast<const std::system_error*>(&error))
        return "a system call failed: " + system->code().message();
    return "the command failed unexpectedly; please report how to repeat it";
}
int RunCli(int argc, char** argv)
{
    CLI::App app{"tarvik: drive Tarvik network gateways from the command line.\n"
                 "A device command needs a gateway (--host or TARVIK_HOST) or --sim for the simulator\n"
                 "built into tarvik.",
                 kProgram};
    app.require_subcommand(1);
    // Global options may also follow the command: "tarvik spi xfer 9F+3 --trace".
    app.fallthrough();
    app.set_version_flag("--version", TarvikVersionText(kProgram));
    SCliGlobals globals;
    AddGlobalOptions(app, globals);

    RegisterDeviceCommands(app, globals);
    RegisterSpiCommands(app, globals);
    RegisterI2CCommands(app, globals);
    RegisterEepromCommands(app, globals);
    RegisterRenesasCommands(app, globals);
    RegisterFirmwareCommands(app, globals);
    RegisterErrcodeCommand(app, globals);
    RegisterSimCommand(app, globals);
    RegisterHexCommands(app, globals);
    RegisterTestSystemCommands(app, globals);
    RegisterCanCommands(app, globals);
    RegisterCanOpenCommands(app, globals);
    RegisterAWireCommands(app, globals);
    ShowGlobalsInHelp(app, app);

    bool json = WantsJson(argc, argv);
    CliSetJsonOutput(json);
    try
    {
        app.parse(argc, argv);
    }
    catch (const CLI::ParseError& e)
    {
        return ReportParseError(app, e, json);
    }
    catch (const CCliError& e)
    {
        return ReportCommandError(app, e, json);
    }
    catch (const std::ios_base::failure& e)
    {
        // A stream's own text names its internals ("basic_filebuf::underflow"); the reason is its code.
        CliReportError(CCliError("a file could not be read or written: " + e.code().message(), eCliExitFailure), json,
                       "");
        return eCliExitFailure;
    }
    catch (const std::exception& e)
    {
        CliReportError(CCliError(UnexpectedMessage(e), eCliExitFailure), json, "");
        return eCliExitFailure;
    }
    CliFlushWarnings();
    return 0;
}
} // namespace

int main(int argc, char** argv)
{
    try
    {
        return RunCli(argc, argv);
    }
    catch (...)
    {
        // Only setting up the commands can get here (RunCli reports everything a command throws).
        std::fputs("tarvik: the command line could not be set up\n", stderr);
        return eCliExitFailure;
    }
}
