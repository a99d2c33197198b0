// Base of every simulated gateway device: the commands that all devices answer.
//
// Common commands (command number = low byte of the command code, high byte = device
// type; the answer carries the request's code | 0x8000, the same message id, result
// byte 0 = success, then the data):
//   0x09 Info              -> 20-byte record (see GetInfoRecord)
//   0x0A Status            -> status text "Tarvik SPI #0 ready, up 12 s, 34 requests"
//   0x0C Restart           -> nothing; volatile state back to power-up values
//   0x40 BaseReadDigital   -> u32 inputs, u32 outputs
//   0x41 BaseWriteDigital  u32 outputs -> nothing
//   0x42 ReadAnalog        -> u32 channel count (8), then 8 × u32 channel values
//   0x43 WriteAnalog       count × u32 (count <= 8) -> nothing; sets channels 0..count-1
// The digital inputs are wired to a fixed pattern (0x0000A55A) that tests may change
// with SetDigitalInputs(); they do not follow the outputs. Outputs and analog values
// start at 0 and keep what was written until a Restart.
//
// Result byte 0xFF ("Tarvik command failed") answers a command number the device does
// not know, a device type byte other than the device's own, and a common command whose
// data has the wrong length. Telegrams with the confirmation bit set are not requests
// and get no answer.
//
// Telegrams unasked: a device model may send indications to its clients at any time,
// from any thread (Indicate, IndicateTo). Each client connection has a bounded outbox
// that only the connection's own thread empties, after the answer it is sending; so
// what a command queues while it is handled goes out after that command's answer.
#ifndef TARVIK_SIM_TARVIKSIMDEVICE_H
#define TARVIK_SIM_TARVIKSIMDEVICE_H

#include "tarvik/core/TarvikMsg.h"
#include "tarvik/core/TarvikResult.h"
#include "tarvik/protocol/TarvikProtocolDevice.h"

#include <chrono>
#include <cstddef>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

class CTarvikSimOutbox;

class CTarvikSimDevice
{
public:
    enum EResult
    {
        eResultOk = 0x00,
        eResultFailed = 0xFF,
    };

    static constexpr size_t kInfoSize = 20;
    static constexpr size_t kAnalogChannels = 8;
    static constexpr unsigned int kDefaultInputs = 0x0000A55A;
    // Largest data field of a telegram: a length field of 65535 less 5.
    static constexpr size_t kMaxData = 65530;

    CTarvikSimDevice(ETarvikDevice type, unsigned int index);
    virtual ~CTarvikSimDevice();
    CTarvikSimDevice(const CTarvikSimDevice&) = delete;
    CTarvikSimDevice& operator=(const CTarvikSimDevice&) = delete;

    ETarvikDevice GetType() const { return m_eType; }
    unsigned int GetIndex() const { return m_nIndex; }
    // Display name, e.g. "Tarvik SPI".
    virtual std::string GetName() const;

    // Answers one request. False: no answer is due (the telegram is a confirmation, or
    // the device model skips the answer).
    // Thread-safe; requests of several clients are served one at a time.
    bool HandleRequest(const CTarvikMsg& req, CTarvikMsg& cnf);

    // Same as the Restart command.
    void Restart();

    // State, for tests; thread-safe.
    unsigned int GetDigitalOutputs() const;
    unsigned int GetDigitalInputs() const;
    void SetDigitalInputs(unsigned int inputs);
    std::vector<unsigned int> GetAnalogValues() const;
    unsigned long GetRequestCount() const;
    // The Info record: bytes 0-3 serial number (u32 LE), 4-5 hardware revision (major,
    // minor), 6-7 firmware version (major, minor), 8-9 firmware build (u16 LE), 10-11
    // production year (u16 LE), 12 month, 13 day, 14-17 zero, 18 device type, 19 index.
    std::string GetInfoRecord() const;

    // Telegrams unasked. Any thread, with or without m_oMutex held; never blocks on a
    // socket. Indicate queues on every client connection (false when none took it);
    // IndicateTo on the connection that GetRequester() named (false when it is gone or
    // its outbox is full); IndicateToWait waits for room instead (false once it ends).
    bool Indicate(const CTarvikMsg& msg);
    bool IndicateTo(unsigned long connection, const CTarvikMsg& msg);
    bool IndicateToWait(unsigned long connection, const CTarvikMsg& msg);
    // Inside HandleCommand: the connection whose request is being handled (non-zero).
    static unsigned long GetRequester();
    // Inside HandleCommand: the message id of the request being handled (a device that
    // reports on a request later names it by this id).
    static short GetRequestID();
    size_t GetConnectionCount() const;
    // Whether the device posts telegrams from threads of its own (a bus, a job). Its
    // connections then wait on their outbox beside the socket; those of a device that
    // only answers block in recv() alone, and what it posts goes out after the next answer.
    virtual bool PostsUnasked() const;

    // Called by the connections as they begin and end.
    void Attach(const std::shared_ptr<CTarvikSimOutbox>& outbox);
    void Detach(unsigned long connection);
    // Names the requesting connection to this thread while it handles a request.
    static void SetRequester(unsigned long connection);

protected:
    // Device-specific commands, called with m_oMutex held. False for a command number
    // the device does not know; otherwise answer = result byte followed by the data.
    virtual bool HandleCommand(unsigned char cmd, const std::string& data, std::string& answer);
    // Back to power-up state after a Restart, called with m_oMutex held.
    virtual void OnRestart();
    // A client connection began or ended; called without m_oMutex held.
    virtual void OnAttach(unsigned long connection);
    virtual void OnDetach(unsigned long connection);

    static std::string Answer(unsigned char result, const std::string& data = std::string());
    // Inside HandleCommand: the request gets no answer at all (a gateway that was told
    // not to confirm a command).
    void SkipAnswer() { m_bSkipAnswer = true; }

    mutable std::mutex m_oMutex;

private:
    bool HandleCommonCommand(unsigned char cmd, const std::string& data, std::string& answer);
    std::string StatusText() const;
    std::shared_ptr<CTarvikSimOutbox> FindOutlet(unsigned long connection) const;
    void RestartLocked();

    ETarvikDevice m_eType;
    unsigned int m_nIndex;
    unsigned int m_nInputs;
    unsigned int m_nOutputs;
    std::vector<unsigned int> m_anAnalog;
    unsigned long m_nRequests;
    bool m_bSkipAnswer;
    std::chrono::steady_clock::time_point m_oStarted;
    // Guards the list; held while posting (which never waits) but not while waiting for
    // room: such a poster keeps the box it found.
    mutable std::mutex m_oOutletMutex;
    std::vector<std::shared_ptr<CTarvikSimOutbox>> m_aoOutlets;
};

#endif
