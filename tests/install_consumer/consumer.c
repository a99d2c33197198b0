/* Uses the flat interface of an installed libtarvik. */
#include <tarvik/Tarvik.h>

#include <stdio.h>

#if !defined(TARVIK_VERSION_NUMBER) || TARVIK_VERSION_NUMBER < 0x010300
#error "the installed headers give no version, or an older one"
#endif
#include <string.h>

int main(void)
{
    char text[64];
    int handle = 0;
    if (DLLInfo(text, (int)sizeof(text)) != 25 || strcmp(text, "Tarvik SPI DLL V1.3-2.18") != 0)
        return 1;
    /* Nothing listens on port 5002 of this address: the open must fail cleanly. */
    if (SPIOpenDevice(&handle, "127.0.0.254", 200) == 0 || handle != -1)
        return 2;
    printf("%s (%s)\n", text, TARVIK_VERSION_STRING);
    return 0;
}
