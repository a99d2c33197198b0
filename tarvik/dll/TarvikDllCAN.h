/* CAN and CANopen functions of the flat C interface.
 *
 * CANDeviceOpen gives a handle of a CAN gateway (port 5001 + 100 x portIndex); every
 * other function takes it. The CANopen services carry the prefix CANopen; the open and
 * close functions are named CANDevice... so that none of them reads as one.
 *
 * Results: 0 or a result code: 0x900000 for an unknown handle, 0x910000 for a handle of
 * another family, 0x920000 for a bad argument (a length the gateway cannot take, a
 * buffer shorter than what may be written into it), transport codes 0x020000..0x0C0000,
 * device results 0x02xx (0x0220 "CAN NACK (No Acknowledge)", 0x0224 "CAN no valid
 * baudrate", 0x02FC..0x02FE the CANopen failures).
 *
 * Null output pointers are skipped, also buffers (their length is then not looked at);
 * an output that the gateway does not answer is left as it was. Yes/no outputs are ints:
 * one that the gateway answers is written 0 for no and nonzero for yes.
 *
 * Receiving: each received frame and CANopen event goes to the callback of its kind when
 * one is set (called on the connection's receive thread: return quickly, and never wait
 * there for an answer of the same handle), else into the queue of its kind, which the
 * CAN...Get... functions poll. Nothing is queued until CANSetMaxSizePerQueue with n > 0.
 * The Get functions return -1 when their queue is empty (or nothing could be fetched),
 * else how many telegrams are left in it after the one returned (0 for the last). Their
 * handle and argument codes 0x900000, 0x910000 and 0x920000 stay apart from those: a
 * queue never holds more than TARVIK_CAN_MAX_QUEUE_SIZE, far below them. */
#ifndef TARVIK_DLL_TARVIKDLLCAN_H
#define TARVIK_DLL_TARVIKDLLCAN_H

#include "tarvik/clients/TarvikCANCallbacks.h"
#include "tarvik/runtime/TarvikExport.h"

#ifdef __cplusplus
extern "C"
{
#endif

/* Words of the acceptance filter. */
#define TARVIK_CAN_FILTER_WORDS 16
/* Most data bytes of a received frame (CAN FD): CANGetMessage's buffer holds this many. */
#define TARVIK_CAN_FRAME_DATA 64
/* Most PDO data bytes that CANopenGetPDO copies. */
#define TARVIK_CANOPEN_PDO_DATA 8
/* Manufacturer bytes of an emergency message. */
#define TARVIK_CANOPEN_EMCY_DATA 5
/* CANopenGetUndefined copies every byte of the telegram after its flags, time stamp
 * included, whatever length it reports: its buffer holds this many. */
#define TARVIK_CANOPEN_UNDEFINED_DATA 255
/* Largest queue size that CANSetMaxSizePerQueue takes. */
#define TARVIK_CAN_MAX_QUEUE_SIZE 1000000
/* The receive queues, one per kind, as CANGetDropCounts names them. */
#define TARVIK_CAN_QUEUE_PDO 0
#define TARVIK_CAN_QUEUE_SYNC 1
#define TARVIK_CAN_QUEUE_EMCY 2
#define TARVIK_CAN_QUEUE_GUARD 3
#define TARVIK_CAN_QUEUE_UNDEFINED 4
#define TARVIK_CAN_QUEUE_CAN 5
#define TARVIK_CAN_QUEUE_COUNT 6

    /* Connects and configures the gateway (CANSetConfig with the two flags). 0x920000 for a
     * portIndex outside 0..99 (*handle untouched); on any other failure *handle is -1. */
    TARVIK_API int CANDeviceOpen(int* handle, const char* host, int timeoutMs, int portIndex, int sendDataConfirm,
                                 int configFlag2);
    TARVIK_API int CANDeviceClose(int handle);
    /* The same two under the names every other family uses (XOpenDevice, XCloseDevice). */
    TARVIK_API int CANOpenDevice(int* handle, const char* host, int timeoutMs, int portIndex, int sendDataConfirm,
                                 int configFlag2);
    TARVIK_API int CANCloseDevice(int handle);

    /* sendDataConfirm nonzero: CANWrite waits for the gateway's confirmation of every frame. */
    TARVIK_API int CANSetConfig(int handle, int sendDataConfirm, int configFlag2);
    TARVIK_API int CANGetConfig(int handle, int* sendDataConfirm, int* configFlag2);
    /* count must be TARVIK_CAN_FILTER_WORDS; the words go to the gateway in order. */
    TARVIK_API int CANSetFilter(int handle, const unsigned int* words, int count);
    /* count: the capacity of words, at least TARVIK_CAN_FILTER_WORDS. */
    TARVIK_API int CANGetFilter(int handle, unsigned int* words, int count);
    TARVIK_API int CANSetGlobals(int handle, unsigned int baudrate, unsigned char setting, int flag1, int flag2,
                                 int flag3, int option1, unsigned int optionValue, int option2);
    /* Read in stages by the answer's length: setting and baud rate first (the other outputs
     * are then cleared), then each further field as far as the answer goes. */
    TARVIK_API int CANGetGlobals(int handle, unsigned int* baudrate, unsigned char* setting, int* flag1, int* flag2,
                                 int* flag3, int* option1, unsigned int* optionValue, int* option2);
    TARVIK_API int CANSetZCardParameter(int handle, unsigned char param1, unsigned short param2, unsigned short param3);
    TARVIK_API int CANGetZCardParameter(int handle, unsigned char* param1, unsigned short* param2,
                                        unsigned short* param3);
    /* The gateway's clock: seconds and microseconds. */
    TARVIK_API int CANSetTime(int handle, int seconds, int microseconds);
    TARVIK_API int CANGetTime(int handle, int* timeValid, int* seconds, int* microseconds);
    /* The counts are the gateway's; each list is stored up to its capacity (0..255 is used,
     * a larger one loses nothing). A state is a yes/no byte. */
    TARVIK_API int CANGetPowerStatus(int handle, unsigned char* valueCount, unsigned char* stateCount1,
                                     unsigned char* stateCount2, short* statusValue1, unsigned short* statusValue2,
                                     unsigned short* statusValue3, int* statusBit, unsigned short* values,
                                     int maxValues, unsigned char* states1, int maxStates1, unsigned char* states2,
                                     int maxStates2);
    TARVIK_API int CANSetPowerRelais(int handle, int on);
    TARVIK_API int CANSetActivePowerSupplies(int handle, unsigned int mask);

    /* Sends one frame of len (0..255) bytes. Unconfirmed mode: *seconds and *microseconds
     * are this PC's local wall-clock time since 1 January 1970; confirmed mode: the
     * gateway's time of transmission. */
    TARVIK_API int CANWrite(int handle, int identifier, const char* data, int len, unsigned char flags, int* seconds,
                            int* microseconds);
    /* The gateway repeats the frame every interval while entry index is enabled. */
    TARVIK_API int CANSetCyclicMessage(int handle, unsigned char index, int enable, unsigned int interval,
                                       int identifier, const char* data, int len, unsigned char flags);
    /* Connection supervision every `seconds`; sends nothing. */
    TARVIK_API int CANStartAlive(int handle, unsigned int seconds);

    /* One frame callback at a time: each of these switches the other off. Null: none. */
    TARVIK_API int CANSetCallback(int handle, PCANFrameCallback callback);
    TARVIK_API int CANSetCallbackEx(int handle, PCANFrameCallbackEx callback);
    /* A frame callback with a context pointer of the caller's, for frames that the two
     * callbacks above do not take (neither is set); null: none. Once it returns, no call of
     * the callback set before is under way (unless it is called from that callback), so
     * what its user pointer points to may go. */
    TARVIK_API int CANSetCallbackUser(int handle, PCANFrameCallbackUser callback, void* user);
    /* size > 0: each queue holds up to size (0x920000 above TARVIK_CAN_MAX_QUEUE_SIZE) and
     * queueing starts; 0: queueing stops and every queue is emptied. */
    TARVIK_API int CANSetMaxSizePerQueue(int handle, unsigned long size);
    /* The oldest received frame. flags: the byte taken as signed (0x81 gives -127; the
     * callbacks get 129). *len: the data without its time stamp, at most 64. A non-null buf
     * needs bufLen >= TARVIK_CAN_FRAME_DATA (0x920000 before anything is taken). */
    TARVIK_API int CANGetMessage(int handle, int* identifier, char* buf, int bufLen, unsigned char* len, int* flags,
                                 int* seconds, int* microseconds);
    /* Up to max of the oldest received frames at once, each as CANGetMessage gives it,
     * taken under one lock. Returns how many were taken (0 when the queue is empty) and in
     * *left (may be null) how many are left; -1 when nothing could be fetched; 0x920000 for
     * max < 0 or a null messages with max > 0. */
    TARVIK_API int CANGetMessages(int handle, STarvikCanMessage* messages, int max, int* left);

    /* Telegrams of queue's kind (TARVIK_CAN_QUEUE_...) dropped on arrival, by reason, since
     * the handle was opened. 0x920000 for an unknown queue or a null counts. */
    TARVIK_API int CANGetDropCounts(int handle, int queue, STarvikCanDropCounts* counts);

    /* CANopen master services; the gateway runs the protocol on the bus. */
    TARVIK_API int CANopenSetConfig(int handle, unsigned char mode);
    TARVIK_API int CANopenGetConfig(int handle, unsigned char* mode);
    TARVIK_API int CANopenSetSYNCMode(int handle, unsigned short syncMode);
    TARVIK_API int CANopenSendNMT(int handle, unsigned char node, unsigned char command);
    TARVIK_API int CANopenSendSYNC(int handle);
    TARVIK_API int CANopenSendTIME(int handle, unsigned short days, unsigned int milliseconds);
    /* len: 0..255 data bytes. */
    TARVIK_API int CANopenSendPDO(int handle, unsigned char selector1, unsigned char selector2, const char* data,
                                  int len);
    /* The SDO services wait twice timeout (the gateway's own limit) for the answer. value:
     * the answer's bytes, each taken as signed and summed at its place (0x80 or more borrows
     * from the bytes above it). */
    TARVIK_API int CANopenSendSDORead(int handle, unsigned char node, unsigned short index, unsigned char subIndex,
                                      unsigned short timeout, unsigned char* status, unsigned int* value);
    TARVIK_API int CANopenSendSDOWrite(int handle, unsigned char node, unsigned char dataSize, unsigned short index,
                                       unsigned char subIndex, unsigned short timeout, unsigned int data,
                                       unsigned char* status, unsigned int* value);
    /* buf receives *len = min(answer size - 2, bufLen) bytes from the answer's status byte
     * on: the first repeats *status, and the last data byte of a full answer is not copied. */
    TARVIK_API int CANopenSendSDOReadBlock(int handle, unsigned char node, unsigned short index, unsigned char subIndex,
                                           unsigned short timeout, unsigned char* buf, int bufLen,
                                           unsigned char* status, unsigned short* len);
    /* len: 0..65535 data bytes after the address (what one telegram holds). */
    TARVIK_API int CANopenSendSDOWriteBlock(int handle, unsigned char node, unsigned short index,
                                            unsigned char subIndex, unsigned short timeout, const unsigned char* data,
                                            int len, unsigned char* status, unsigned int* value);
    /* The expedited SDO transfers with the value as it came (beside the two above, which
     * keep their signed sum). Every non-null output is written whatever the gateway
     * answered (not for 0x900000 and 0x910000, which reach no gateway): on
     * success *status, *value = the value bytes as an unsigned little-endian number and
     * *size = their count (0..4), *abortCode = 0; on a failure *abortCode = the node's SDO
     * abort code when the gateway's answer carries it (0x0002FD "CANOpen NACK"), else 0,
     * and the other outputs 0. 0x0002FC: the node did not answer; 0x0002FE: CANopen mode is
     * off (CANopenSetConfig); 0x0C0000: a success answer that is not an SDO value. */
    TARVIK_API int CANopenSDOReadValue(int handle, unsigned char node, unsigned short index, unsigned char subIndex,
                                       unsigned short timeout, unsigned char* status, unsigned int* value,
                                       unsigned char* size, unsigned int* abortCode);
    TARVIK_API int CANopenSDOWriteValue(int handle, unsigned char node, unsigned char dataSize, unsigned short index,
                                        unsigned char subIndex, unsigned short timeout, unsigned int data,
                                        unsigned char* status, unsigned int* value, unsigned char* size,
                                        unsigned int* abortCode);
    /* The standard meaning of an SDO abort code ("object does not exist" for 0x06020000),
     * cut to size - 1 characters and terminated; returns the whole text's length with its
     * zero, so a return above size tells of a cut (nothing written for a null buf). */
    TARVIK_API int CANopenSDOAbortText(unsigned int abortCode, char* buf, int size);
    /* All five CANopen callbacks at once; any may be null. */
    TARVIK_API int CANopenSetCallback(int handle, PCANopenPDOCallback pdo, PCANopenSYNCCallback sync,
                                      PCANopenEMCYCallback emcy, PCANopenGUARDCallback guard,
                                      PCANopenUndefinedCallback undefined);
    /* The oldest event of each kind. A non-null buf needs at least the length named. */
    TARVIK_API int CANopenGetPDO(int handle, unsigned char* selector1, unsigned char* selector2, unsigned char* len,
                                 char* buf, int bufLen /* >= TARVIK_CANOPEN_PDO_DATA */);
    TARVIK_API int CANopenGetSYNC(int handle, unsigned char* value);
    /* Error code from unsigned bytes (the callback widens the low byte with its sign). */
    TARVIK_API int CANopenGetEMCY(int handle, unsigned char* node, unsigned short* errorCode,
                                  unsigned char* errorRegister, unsigned char* data,
                                  int dataLen /* >= TARVIK_CANOPEN_EMCY_DATA */);
    TARVIK_API int CANopenGetGUARD(int handle, unsigned char* node, unsigned char* state);
    /* *len: at most 8, but buf receives every byte after the flags. */
    TARVIK_API int CANopenGetUndefined(int handle, int* identifier, unsigned char* byte0, unsigned char* byte1,
                                       unsigned char* len, char* buf, int bufLen /* >= TARVIK_CANOPEN_UNDEFINED_DATA */,
                                       int* seconds, int* microseconds);

#ifdef __cplusplus
}
#endif

#endif
