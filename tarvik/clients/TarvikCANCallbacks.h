/* The callbacks of the CAN client, as plain C function pointers, and its drop counters:
 * the C interface and the C++ client take the same ones. The int after the data is the
 * device handle. */
#ifndef TARVIK_CLIENTS_TARVIKCANCALLBACKS_H
#define TARVIK_CLIENTS_TARVIKCANCALLBACKS_H

/* A received CAN frame: identifier, data, length, flags (0..255), handle. */
typedef void (*PCANFrameCallback)(unsigned int, const char*, int, int, int);
/* The same with the frame's time stamp: seconds and microseconds (0, 0 without one). */
typedef void (*PCANFrameCallbackEx)(unsigned int, const char*, int, int, int, int, int);
/* PDO: the two selector bytes, the length byte as received, data, handle, 0, 0. */
typedef void (*PCANopenPDOCallback)(unsigned char, unsigned char, unsigned char, const char*, int, int, int);
/* SYNC: value, handle, 0, 0. */
typedef void (*PCANopenSYNCCallback)(unsigned char, int, int, int);
/* EMCY: node, error code (its low byte widened with its sign), error register, 5 bytes
 * of manufacturer data, handle, 0, 0. */
typedef void (*PCANopenEMCYCallback)(unsigned char, unsigned short, unsigned char, const unsigned char*, int, int, int);
/* Node guarding: node, state, handle, 0, 0. */
typedef void (*PCANopenGUARDCallback)(unsigned char, unsigned char, int, int, int);
/* A telegram of no known kind: identifier, its two low bytes, length, data, handle,
 * seconds, microseconds. */
typedef void (*PCANopenUndefinedCallback)(int, unsigned char, unsigned char, unsigned char, const char*, int, int, int);

/* A received frame for a callback set with its own context: user as given when it was
 * set, then identifier, data, length, flags (0..255), seconds, microseconds (0, 0
 * without the gateway's time stamp). */
typedef void (*PCANFrameCallbackUser)(void*, unsigned int, const char*, int, int, int, int);

/* One received frame as the batch fetch hands it out: the outputs of CANGetMessage. */
typedef struct STarvikCanMessage
{
    int nIdentifier;
    int nFlags; /* the byte taken as signed (0x81 gives -127), as CANGetMessage gives it */
    int nSeconds;
    int nMicroseconds;
    unsigned char nLen; /* data bytes without the time stamp, at most 64 */
    char acData[64];
} STarvikCanMessage;

/* Telegrams of one kind that were dropped on arrival, counted since the client was made. */
typedef struct STarvikCanDropCounts
{
    unsigned long long nDisabled; /* no callback took it and the queues were off */
    unsigned long long nFull;     /* its queue was full: the newest is the one dropped */
    unsigned long long nTooLong;  /* a frame of more than 64 data bytes */
    unsigned long long nTooShort; /* shorter than its kind's fixed part */
} STarvikCanDropCounts;

#endif
