#include "tarvik/clients/TarvikCanReceiver.h"

// By default a receiver takes nothing: every kind it does not handle goes on to its queue.

bool ITarvikCanReceiver::OnFrame(unsigned int, const char*, int, int, int, int)
{
    return false;
}

bool ITarvikCanReceiver::OnPDO(unsigned char, unsigned char, unsigned char, const char*)
{
    return false;
}

bool ITarvikCanReceiver::OnSYNC(unsigned char)
{
    return false;
}

bool ITarvikCanReceiver::OnEMCY(unsigned char, unsigned short, unsigned char, const unsigned char*)
{
    return false;
}

bool ITarvikCanReceiver::OnGUARD(unsigned char, unsigned char)
{
    return false;
}

bool ITarvikCanReceiver::OnUndefined(int, const char*, int, int, int)
{
    return false;
}

void ITarvikCanReceiver::OnQueued(EQueue) {}
