#include "tarvik/clients/TarvikClientFirmware.h"

#include "tarvik/clients/TarvikClientI2C.h"
#include "tarvik/runtime/MolString.h"

#include <cstdio>
#include <cstring>

namespace
{
// Where the fields live in the information image (little-endian words).
enum EImageOffset
{
    eImgTag = 0x00,
    eImgSWVersion = 0x04,
    eImgHWVersion = 0x08,
    eImgLayout = 0x0C,
    eImgField3 = 0x10,
    eImgField6 = 0x14,
    eImgSWVariant = 0x15,
    eImgField8 = 0x20,
    eImgField9 = 0x30,
    eImgField4 = 0x40,
    eImgField5 = 0x44,
};

// What SetInfo always writes into the header, whatever the caller's record says.
constexpr unsigned int kImageTag = 0x00002000;
constexpr unsigned int kImageSWVersion = 0x00010101;
constexpr unsigned int kImageHWVersion = 0x0001010A;
constexpr unsigned int kImageLayout = 2;
constexpr unsigned int kOldLayout = 1;
constexpr unsigned int kSpecialHardware = 0xAABBCCDD;
constexpr unsigned int kWritePiece = 16;
// Block number and result byte lead a flash block in its answer.
constexpr size_t kFlashDataPos = 3;
// The EEPROM commands report their failures in the I2C range.
constexpr int kEEPromResultBit = 0x100;

unsigned int GetWord(const std::string& image, size_t pos)
{
    unsigned int value = 0;
    CTarvikPayload(image).ReadU32(pos, value);
    return value;
}

void PutWord(std::string& image, size_t pos, unsigned int value)
{
    image.replace(pos, 4, CTarvikMsg::ToChar(value));
}

unsigned char GetByte(const std::string& image, size_t pos)
{
    return static_cast<unsigned char>(image[pos]);
}

std::string VersionPrefix(unsigned int version)
{
    return MolToString((version >> 16) & 0xFF) + "." + MolToString((version >> 8) & 0xFF) + ".";
}

int EEPromResult(int result)
{
    return result == 0 ? 0 : result | kEEPromResultBit;
}
} // namespace

std::string CTarvikClientFirmware::STarvikDeviceInfoEx::GetSWVersionString() const
{
    std::string text = VersionPrefix(nSWVersion) + MolToString(nSWVersion & 0xFF);
    if (nSWVariant != 0)
    {
        char hex[3];
        std::snprintf(hex, sizeof(hex), "%02X", nSWVariant);
        text += std::string("-") + hex;
    }
    return text;
}

std::string CTarvikClientFirmware::STarvikDeviceInfoEx::GetHWVersionString() const
{
    if (nHWVersion == kSpecialHardware)
        return "TLX-GW";
    // The revision counts from 10 = 'A'; smaller values give no digit, as on the devices.
    return VersionPrefix(nHWVersion) + static_cast<char>((nHWVersion & 0xFF) + 0x37);
}

CTarvikClientFirmware::CTarvikClientFirmware(int timeoutMs)
    : CTarvikClient(eTarvikFirmware, static_cast<unsigned int>(timeoutMs))
{
}

CTarvikClientFirmware::~CTarvikClientFirmware()
{
    StopConnection();
}

int CTarvikClientFirmware::Open(int&, int&)
{
    SetNextMsgID(1);
    return 0;
}

int CTarvikClientFirmware::Restart()
{
    CTarvikReply reply;
    return Request(eCmdRestart, nullptr, 0, reply);
}

int CTarvikClientFirmware::ClearFlash()
{
    CTarvikReply reply;
    return Request(eCmdClearFlash, nullptr, 0, reply);
}

int CTarvikClientFirmware::ReadFlash(unsigned short nBlock, char* pBuffer, unsigned long& nReceived)
{
    nReceived = 0;
    CTarvikReply reply;
    int result = Request(eCmdReadFlash, CTarvikMsg::ToChar(nBlock), reply, nullptr, kFlashDataPos + kFlashBlockSize);
    if (reply.Transport() != 0)
        return result;
    // The count of a short answer is kept as the devices' tools know it (the difference
    // taken unsigned); only the bytes that are there are copied.
    reply.CopyTo(kFlashDataPos, pBuffer, kFlashBlockSize);
    size_t size = reply.Size();
    nReceived =
        size >= kFlashDataPos && size - kFlashDataPos < kFlashBlockSize ? size - kFlashDataPos : kFlashBlockSize;
    return result;
}

int CTarvikClientFirmware::WriteFlash(unsigned short nBlock, const char* pBuffer)
{
    if (pBuffer == nullptr)
        return TARVIK_ERR_INVALID_PARAMETER;
    std::string payload = CTarvikMsg::ToChar(nBlock);
    payload.append(pBuffer, kFlashBlockSize);
    CTarvikReply reply;
    return Request(eCmdWriteFlash, std::move(payload), reply);
}

int CTarvikClientFirmware::GetEEPromInfo(int& nInfo)
{
    nInfo = 0;
    CTarvikReply reply;
    int result = Request(eCmdGetEEPromInfo, nullptr, 0, reply);
    if (reply.Transport() == 0)
    {
        // A shorter answer fills the low bytes; the rest stay 0.
        char bytes[4] = {};
        reply.CopyTo(3, bytes, sizeof(bytes));
        CTarvikPayload(bytes, sizeof(bytes)).ReadS32(0, nInfo);
    }
    return result;
}

int CTarvikClientFirmware::ReadEEProm(unsigned int nAddress, char* pBuffer, unsigned short nBufferLen,
                                      unsigned short& nReceived)
{
    std::string payload = ToOffset(nAddress, kAddressFormat) + CTarvikMsg::ToChar(nBufferLen);
    CTarvikReply reply;
    int result = Request(eCmdReadEEProm, std::move(payload), reply, nullptr, 1 + size_t(nBufferLen));
    if (reply.Transport() == 0)
        nReceived = static_cast<unsigned short>(reply.CopyTo(1, pBuffer, nBufferLen));
    return EEPromResult(result);
}

int CTarvikClientFirmware::WriteEEProm(unsigned int nAddress, const char* pBuffer, unsigned short nBufferLen)
{
    if (pBuffer == nullptr && nBufferLen > 0)
        return EEPromResult(TARVIK_ERR_INVALID_PARAMETER);
    std::string payload = ToOffset(nAddress, kAddressFormat);
    payload.append(pBuffer != nullptr ? pBuffer : "", nBufferLen);
    CTarvikReply reply;
    return EEPromResult(Request(eCmdWriteEEProm, std::move(payload), reply));
}

std::string CTarvikClientFirmware::ToOffset(unsigned int nAddress, unsigned int nFormat)
{
    return CTarvikClientI2C::ToOffset(nAddress, static_cast<unsigned short>(nFormat));
}

int CTarvikClientFirmware::ReadImage(std::string& image)
{
    image.assign(kInfoImageSize, '\0');
    unsigned short received = 0;
    return ReadEEProm(0, &image[0], kInfoImageSize, received);
}

int CTarvikClientFirmware::GetInfo(STarvikDeviceInfoEx& info)
{
    info = STarvikDeviceInfoEx();
    std::string image;
    int result = ReadImage(image);
    if (result != 0)
        return result;
    info.nSWVersion = GetWord(image, eImgSWVersion);
    info.nHWVersion = GetWord(image, eImgHWVersion);
    info.nImageTag = GetWord(image, eImgTag);
    info.nLayoutVersion = GetWord(image, eImgLayout);
    info.nField9 = GetByte(image, eImgField9);
    if (info.nLayoutVersion == kOldLayout)
    {
        // Layout 1 kept the last three data words in the other byte order.
        info.nField6 = 1;
        info.aField8[0] = GetWord(image, eImgField8);
        for (size_t i = 1; i < 4; ++i)
            info.aField8[i] = swablong(GetWord(image, eImgField8 + 4 * i));
        return 0;
    }
    info.nField6 = GetByte(image, eImgField6);
    info.nSWVariant = GetByte(image, eImgSWVariant);
    for (size_t i = 0; i < 4; ++i)
        info.aField8[i] = GetWord(image, eImgField8 + 4 * i);
    info.nField4 = GetWord(image, eImgField4);
    info.nField5 = static_cast<unsigned short>(GetByte(image, eImgField5) | GetByte(image, eImgField5 + 1) << 8);
    info.nField3 = GetWord(image, eImgField3);
    return 0;
}

int CTarvikClientFirmware::SetInfo(STarvikDeviceInfoEx& info)
{
    std::string image;
    int result = ReadImage(image);
    if (result != 0)
        return result;
    PutWord(image, eImgTag, kImageTag);
    PutWord(image, eImgSWVersion, kImageSWVersion);
    PutWord(image, eImgHWVersion, kImageHWVersion);
    PutWord(image, eImgLayout, kImageLayout);
    info.nLayoutVersion = kImageLayout;
    image[eImgField6] = static_cast<char>(info.nField6);
    image[eImgField9] = static_cast<char>(info.nField9);
    for (size_t i = 0; i < 4; ++i)
        PutWord(image, eImgField8 + 4 * i, info.aField8[i]);
    PutWord(image, eImgField4, info.nField4);
    image.replace(eImgField5, 2, CTarvikMsg::ToChar(info.nField5));
    PutWord(image, eImgField3, info.nField3);
    for (unsigned int pos = 0; pos < kInfoImageSize && result == 0; pos += kWritePiece)
        result = WriteEEProm(pos, image.data() + pos, kWritePiece);
    return result;
}

unsigned int CTarvikClientFirmware::swablong(unsigned int value)
{
    return (value >> 24) | ((value >> 8) & 0xFF00) | ((value << 8) & 0xFF0000) | (value << 24);
}
