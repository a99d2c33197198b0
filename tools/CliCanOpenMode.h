// What the CLI says about a gateway's CANopen mode: the command that switches it, and
// the messages for the CANopen failures (mode off, a node that does not answer, a node
// that aborts a transfer with its SDO abort code).
#ifndef TARVIK_TOOLS_CLICANOPENMODE_H
#define TARVIK_TOOLS_CLICANOPENMODE_H

#include "TarvikCli.h"

#include <string>

// "tarvik --host 10.0.0.5 canopen mode on": the command line that sets the mode on
// the gateway this invocation talks to.
std::string CliCanOpenModeCommand(const SCliGlobals& globals, bool on);

// How to switch CANopen mode on, for a message's cause line.
std::string CliCanOpenModeHint(const SCliGlobals& globals);

// Ends the command for a CANopen failure, named in CANopen's terms: 0x0002FE the mode
// (with the command that switches it on), 0x0002FC the node that did not answer,
// 0x0002FD the node's abort code with its meaning (when the gateway sent one). Returns
// for any other result, which the caller checks as usual.
void CliCheckCanOpen(const SCliGlobals& globals, int result, const std::string& what, int node = -1,
                     unsigned int abortCode = 0, unsigned int sdoTimeoutMs = 0);

#endif
