/* can_demo: two CAN gateways on one bus through the flat C interface.
 *
 *   can_demo [HOST [TIMEOUT_MS [PORT_INDEX]]]
 *
 * Opens the CAN gateways at HOST with port indices PORT_INDEX and PORT_INDEX + 1 (ports
 * 5001 + 100 x index), lets the second one queue what it receives, sends one frame from
 * the first (confirmed by its gateway) and polls the second until the frame arrives,
 * then prints it. Exits 0 when the frame came whole. */
/* nanosleep for the poll pause: strict C99 leaves POSIX out unless asked. */
#define _POSIX_C_SOURCE 199309L

#include "tarvik/Tarvik.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#define FRAME_ID 0x123
#define FRAME_LEN 8
#define POLL_ROUNDS 500

static int Check(const char* step, int result)
{
    char text[256];
    if (result == 0)
        return 0;
    SPIErrorMessage(result, text, (int)sizeof(text));
    fprintf(stderr, "%s failed: 0x%06X %s\n", step, (unsigned)result, text);
    return 1;
}

static void Pause(void)
{
    struct timespec ten = {0, 10 * 1000 * 1000};
    nanosleep(&ten, NULL);
}

/* Polls the receiver's queue; 0 when a frame came, printed. */
static int Receive(int receiver, char* data, unsigned char* len, int* id)
{
    int flags = 0, seconds = 0, micros = 0, round, left = -1;
    for (round = 0; round < POLL_ROUNDS && left < 0; ++round)
    {
        left = CANGetMessage(receiver, id, data, TARVIK_CAN_FRAME_DATA, len, &flags, &seconds, &micros);
        if (left < 0)
            Pause();
        else if (left > TARVIK_CAN_MAX_QUEUE_SIZE)
            return Check("receive", left);
    }
    if (left < 0)
    {
        fprintf(stderr, "no frame arrived\n");
        return 1;
    }
    printf("received: id 0x%03X flags %d len %u data", (unsigned)*id, flags, (unsigned)*len);
    for (round = 0; round < *len; ++round)
        printf(" %02X", (unsigned char)data[round]);
    printf("\n");
    return 0;
}

static int SendAndReceive(int sender, int receiver)
{
    const char frame[FRAME_LEN] = {'t', 'a', 'r', 'v', 'i', 'k', 0x13, 0x37};
    char data[TARVIK_CAN_FRAME_DATA];
    unsigned char len = 0;
    int id = 0, seconds = 0, micros = 0;

    if (Check("queue size", CANSetMaxSizePerQueue(receiver, 100)))
        return 1;
    if (Check("write", CANWrite(sender, FRAME_ID, frame, FRAME_LEN, 0, &seconds, &micros)))
        return 1;
    printf("sent: id 0x%03X len %d at %d.%06d on the gateway's clock\n", FRAME_ID, FRAME_LEN, seconds, micros);
    if (Receive(receiver, data, &len, &id))
        return 1;
    if (id != FRAME_ID || len != FRAME_LEN || memcmp(data, frame, FRAME_LEN) != 0)
    {
        fprintf(stderr, "the frame received differs from the one sent\n");
        return 1;
    }
    return 0;
}

int main(int argc, char** argv)
{
    const char* host = argc > 1 ? argv[1] : "127.0.0.1";
    int timeoutMs = argc > 2 ? atoi(argv[2]) : 1000;
    int portIndex = argc > 3 ? atoi(argv[3]) : 0;
    int sender = -1, receiver = -1;
    int failed = 0;

    /* The sender waits for its gateway's confirmation of every frame. */
    if (Check("open sender", CANDeviceOpen(&sender, host, timeoutMs, portIndex, 1, 0)))
        return 1;
    if (Check("open receiver", CANDeviceOpen(&receiver, host, timeoutMs, portIndex + 1, 0, 0)))
    {
        CANDeviceClose(sender);
        return 1;
    }
    failed |= SendAndReceive(sender, receiver);
    failed |= Check("close sender", CANDeviceClose(sender));
    failed |= Check("close receiver", CANDeviceClose(receiver));
    printf("%s\n", failed ? "demo FAILED" : "demo passed");
    return failed ? 1 : 0;
}
