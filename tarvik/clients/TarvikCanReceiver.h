// ITarvikCanReceiver: what the CAN client (CTarvikClientCANDll) hands received frames and
// CANopen events to when the application wants them with a context of its own: derive,
// keep what you need in your members, and set it with SetReceiver.
//
// Order: the plain C callbacks of a kind come first; a telegram that none of them takes
// is offered to the receiver; one the receiver does not take (returns false) goes into
// the queue of its kind. OnQueued reports each telegram that went into a queue, so that
// a reader waiting for one can wake.
//
// Threads: every method runs on the connection's receive thread with no lock of the
// library held. Return quickly and never wait there for an answer of the same client.
#ifndef TARVIK_CLIENTS_TARVIKCANRECEIVER_H
#define TARVIK_CLIENTS_TARVIKCANRECEIVER_H

#include "tarvik/runtime/TarvikExport.h"

class TARVIK_API ITarvikCanReceiver
{
public:
    // The queues, one per kind of indication.
    enum EQueue
    {
        eQueuePDO = 0,
        eQueueSYNC = 1,
        eQueueEMCY = 2,
        eQueueGUARD = 3,
        eQueueUndefined = 4,
        eQueueCAN = 5,
        eQueueCount = 6,
    };

    virtual ~ITarvikCanReceiver() = default;

    // Each returns true when it took the telegram (it is then not queued). The data
    // pointers are valid during the call only.
    // A received frame: flags 0..255; data without its time stamp (len <= 64); seconds
    // and microseconds are the gateway's time stamp, 0 and 0 without one.
    virtual bool OnFrame(unsigned int nIdentifier, const char* pcData, int nLen, int nFlags, int nSeconds,
                         int nMicroseconds);
    // A PDO: the two selector bytes, then nLen data bytes (the length as the gateway sent it).
    virtual bool OnPDO(unsigned char nSelector1, unsigned char nSelector2, unsigned char nLen, const char* pcData);
    virtual bool OnSYNC(unsigned char nValue);
    // An emergency: the error code read unsigned, low byte first; 5 manufacturer bytes.
    virtual bool OnEMCY(unsigned char nNode, unsigned short nErrorCode, unsigned char nErrorRegister,
                        const unsigned char* pcData);
    virtual bool OnGUARD(unsigned char nNode, unsigned char nState);
    // A frame of no CANopen kind: identifier, data without its time stamp, time stamp.
    virtual bool OnUndefined(int nIdentifier, const char* pcData, int nLen, int nSeconds, int nMicroseconds);
    // A telegram went into queue eQueue (called after the queue's lock is released).
    virtual void OnQueued(EQueue eQueue);
};

#endif
