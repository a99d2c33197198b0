// errcode: splits a result code into its layers and prints its text.
#include "CliFormat.h"
#include "TarvikCli.h"

#include "tarvik/core/TarvikResult.h"

#include <memory>

namespace
{
void RunErrcode(const SCliGlobals& globals, const std::string& text)
{
    int code = static_cast<int>(CliParseSigned(text, "CODE"));
    int transport = TarvikErrorTransport(code);
    int type = TarvikErrorDeviceType(code);
    int byte = TarvikErrorDeviceByte(code);
    std::string message = TarvikErrorMsg(code);
    std::string typeName = type != 0 ? " " + TarvikDeviceName(type) : "";
    std::string out = "code        " + CliCode(code) + " (" + std::to_string(code) + ")\ntransport   " +
                      CliHex(transport, 2) + "\ndevice type " + CliHex(type, 2) + typeName + "\ndevice byte " +
                      CliHex(byte, 2) + "\ntext        " + message;
    TCliJson json = {{"code", code},        {"transport", transport},
                     {"device_type", type}, {"device", type != 0 ? TarvikDeviceName(type) : ""},
                     {"device_byte", byte}, {"text", message}};
    CliPrint(globals, out, json);
}
} // namespace

void RegisterErrcodeCommand(CLI::App& app, SCliGlobals& globals)
{
    auto code = std::make_shared<std::string>();
    SCliGlobals* g = &globals;
    CLI::App* cmd = app.add_subcommand("errcode", "Split a result code (e.g. 0x0330) into its parts, with its text");
    cmd->add_option("CODE", *code, "Result code, decimal or 0x hex")->required();
    cmd->callback([g, code] { RunErrcode(*g, *code); });
}
