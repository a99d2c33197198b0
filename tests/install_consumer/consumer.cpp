// Uses the client classes of an installed libtarvik.
#include <tarvik/Tarvik.h>

#include <iostream>

int main()
{
    CTarvikClientSPI spi(200);
    std::string offset = CTarvikClientSPI::ToOffset(0x01020304, eOffset3Byte);
    if (offset != std::string("\x02\x03\x04", 3))
        return 1;
    std::cout << CTarvikClient::GetErrorMsg(0x0330) << "\n";
    return CTarvikClient::GetErrorMsg(0x0330) == "SPI sequence unknown command op code" ? 0 : 2;
}
