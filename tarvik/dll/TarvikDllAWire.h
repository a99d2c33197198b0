/* AWire programming functions of the flat C interface.
 *
 * AWireOpenDevice gives a handle of an AWire programming gateway (port 5013 + 100 x
 * portIndex). Configure it (AWireSetConfig, or AWireGetConfig to take the target's page
 * size over), erase, then write blocks or a whole memory-image file and read back.
 * Block writes only send the block: AWireGetWriteBlockStatus follows each by its write
 * handle. AWireWriteFile writes an Intel HEX, S-record or binary file in the background
 * and compares it afterwards; AWireGetWriteFileStatus reports its step and percentage.
 *
 * All return 0 or a result code: 0x900000 unknown handle, 0x910000 a handle of another
 * family, 0x920000 a bad argument (a null text or buffer with a length, a length the
 * gateway cannot take), transport codes 0x020000..0x0C0000, device results 0x0Exx
 * (0x0E21 "A transfer currently is in progress" while a file write exists, 0x0E26
 * "Failed to read data from target", ...), and 255 where the client reports one:
 * unknown write handle, no file write, a verify difference. Null output pointers are
 * skipped; an output that the gateway does not answer is left as it was. */
#ifndef TARVIK_DLL_TARVIKDLLAWIRE_H
#define TARVIK_DLL_TARVIKDLLAWIRE_H

#include "tarvik/runtime/TarvikExport.h"

#ifdef __cplusplus
extern "C"
{
#endif

/* Steps of a file write (AWireGetWriteFileStatus). */
#define TARVIK_AWIRE_STEP_FAILED (-1)
#define TARVIK_AWIRE_STEP_NOT_STARTED 0
#define TARVIK_AWIRE_STEP_WRITING 1
#define TARVIK_AWIRE_STEP_VERIFYING 2
#define TARVIK_AWIRE_STEP_DONE 3
/* States of a block write (AWireGetWriteBlockStatus); any other is a failure. */
#define TARVIK_AWIRE_BLOCK_FINISHED 0
#define TARVIK_AWIRE_BLOCK_IN_PROGRESS 1

    /* 0x920000 for a portIndex outside 0..99 (*handle untouched); on any other failure
     * *handle is -1. */
    TARVIK_API int AWireOpenDevice(int* handle, const char* host, int timeoutMs, int portIndex);
    /* Stops a file write that still runs. */
    TARVIK_API int AWireCloseDevice(int handle);
    /* pageSize is the target's page size, the file write's granularity; the other values
     * and the text (cut at 255 bytes) are the gateway's. */
    TARVIK_API int AWireSetConfig(int handle, unsigned int value1, unsigned int value2, unsigned int pageSize,
                                  unsigned int value4, const char* text);
    /* The four values when the answer carries them; the text is copied into buf as DLLInfo
     * does (at most size bytes with the terminating zero, the first character dropped when
     * it does not fit) only when the whole text came; else buf is left alone. */
    TARVIK_API int AWireGetConfig(int handle, unsigned int* value1, unsigned int* value2, unsigned int* pageSize,
                                  unsigned int* value4, char* buf, int size);
    /* Reads len (0..65535) bytes; on success *count = the bytes copied into buf. */
    TARVIK_API int AWireRead(int handle, unsigned int address, char* buf, int len, unsigned short* count);
    /* Reads the range back and compares it with data; 255 on a difference. */
    TARVIK_API int AWireVerify(int handle, unsigned int address, const char* data, int len);
    /* The value is the gateway's: 0 erases the whole flash. */
    TARVIK_API int AWireErase(int handle, unsigned short value);
    TARVIK_API int AWireEraseUserPage(int handle);
    /* Sends a block (0..65524 bytes, what one telegram holds) without waiting;
     * *writeHandle receives the handle that AWireGetWriteBlockStatus follows. */
    TARVIK_API int AWireWriteBlock(int handle, unsigned int address, const char* data, int len, short* writeHandle);
    TARVIK_API int AWireWriteUserPage(int handle, unsigned int address, const char* data, int len, short* writeHandle);
    /* A finished block (state 0) is reported once; a second query gives 255. */
    TARVIK_API int AWireGetWriteBlockStatus(int handle, short writeHandle, int* state, unsigned short* length,
                                            unsigned short* done);
    /* Starts writing the file in the background. Without a known page size it asks the
     * gateway first; a page size still 0 returns 0 with nothing started. A file that cannot
     * be loaded shows as step -1. A damaged image (a wrong checksum or byte count, a character
     * that is no hex digit, no end record, overlapping records, ...) returns 0x920000 and
     * nothing is sent. */
    TARVIK_API int AWireWriteFile(int handle, const char* filename);
    /* The end (step 3 done or -1 failed, both at 100 percent) is reported once; the file
     * write is then gone and a further call gives 255. */
    TARVIK_API int AWireGetWriteFileStatus(int handle, int* step, unsigned char* percent);

#ifdef __cplusplus
}
#endif

#endif
