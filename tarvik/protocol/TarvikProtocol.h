// The shape shared by the per-device protocol headers of this directory.
//
// Each device family lists its commands once, as an X-macro list of X(Name, number),
// where the number is the low byte of the command code (the high byte is the device
// type). From that one list come
//   - the enumerators eCmd<Name> in the family's namespace (tarvik_protocol::<family>)
//     and in its client class, and
//   - a constexpr table kCommands of {name, number} that tools, language bindings and
//     dissectors can be generated from or checked against.
// Flag bits and payload offsets/sizes of the family sit beside its list as constants.
//
// These headers include nothing but std headers and the runtime floor.
#ifndef TARVIK_PROTOCOL_TARVIKPROTOCOL_H
#define TARVIK_PROTOCOL_TARVIKPROTOCOL_H

namespace tarvik_protocol
{
// One command of a device family: its name (the enumerator without eCmd) and number.
struct SCommandName
{
    const char* m_pszName;
    unsigned char m_nNumber;
};
} // namespace tarvik_protocol

// X(Name, number) -> an enumerator eCmdName = number,
#define TARVIK_PROTOCOL_ENUMERATOR(name, number) eCmd##name = (number),
// X(Name, number) -> a table row {"Name", number},
#define TARVIK_PROTOCOL_TABLE_ROW(name, number) tarvik_protocol::SCommandName{#name, number},

#endif
