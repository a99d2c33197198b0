// What the tarvik can commands share: their options, the client they open, the frame
// conversions between the tool's text form and the gateway's flags byte, and the
// report of what the client dropped on arrival.
#ifndef TARVIK_TOOLS_CLICAN_H
#define TARVIK_TOOLS_CLICAN_H

#include "CliCanFrame.h"
#include "CliFormat.h"
#include "CliSession.h"
#include "TarvikCli.h"

#include "tarvik/clients/TarvikClientCANDll.h"

#include <string>
#include <vector>

struct SCanOptions
{
    // Cyclic entry used when --index is not given.
    static constexpr unsigned char kDefaultCyclicIndex = 0;

    // config
    std::string m_sConfirm;
    std::string m_sFlag2;
    // filter
    std::vector<std::string> m_asFilter;
    // globals
    long long m_nBaudrate = -1;
    int m_nSetting = -1;
    std::vector<int> m_anFlags;
    long long m_nOption = -1;
    int m_nOption2 = -1;
    // zcard
    std::vector<unsigned int> m_anZCard;
    // clock
    std::string m_sClockSet;
    // power
    std::string m_sRelay;
    long long m_nSupplies = -1;
    // send, cyclic
    std::vector<std::string> m_asFrames;
    bool m_bConfirm = false;
    unsigned int m_nInterval = 0;
    bool m_bOff = false;
    unsigned int m_nIndex = kDefaultCyclicIndex;
    // dump, play
    unsigned long m_nCount = 0;
    double m_dDuration = 0;
    bool m_bLog = false;
    std::string m_sOutput;
    std::string m_sLogFile;
    unsigned int m_nLoop = 1;
};

// The client every command here uses: the registry's CAN client, opened with the
// configuration the gateway has.
class CCliCan
{
public:
    // A receiver and the queue size are set before the connection opens, so that no
    // frame arriving in between is lost.
    explicit CCliCan(const SCliGlobals& globals, ITarvikCanReceiver* receiver = nullptr, unsigned long queueSize = 0);
    CCliSession& Session() { return m_oSession; }
    CTarvikClientCANDll& Client() { return m_oClient; }
    void Check(int result, const std::string& what) { m_oSession.Check(result, what); }

private:
    CCliSession m_oSession;
    CTarvikClientCANDll m_oClient;
};

// The gateway's flags byte of a frame, and a frame from what the gateway reported.
unsigned char CliCanFlagsOf(const SCliCanFrame& frame);
SCliCanFrame CliCanFrameOf(unsigned int id, const char* data, int len, int flags);
// A frame argument in cansend's syntax; anything else ends the command (exit 2).
SCliCanFrame CliCanParseFrameArg(const std::string& text);
// "tarvik0" for port index 0: the interface name in candump's layouts.
std::string CliCanInterfaceName(const SCliGlobals& globals);

// What the client dropped on arrival: "none", or per kind the counts by reason
// ("CAN: 3 queue full"); and the same as JSON, every kind with all four counts.
std::string CliCanDropsText(const CTarvikClientCANDll& client);
TCliJson CliCanDropsJson(const CTarvikClientCANDll& client);

// The commands of their own files.
void CliRunCanDump(const SCliGlobals& globals, const SCanOptions& options);
void CliRunCanPlay(const SCliGlobals& globals, const SCanOptions& options);

#endif
