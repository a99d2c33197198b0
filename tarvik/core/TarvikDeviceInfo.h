/* The 20-byte information record that every gateway answers to its Info command.
 * The library passes the bytes through; their meaning is the device's. Before a
 * request the record is cleared and byte 18 holds the asking client's device type,
 * so a device that sends fewer than 19 bytes leaves the type visible there. */
#ifndef TARVIK_CORE_TARVIKDEVICEINFO_H
#define TARVIK_CORE_TARVIKDEVICEINFO_H

#define TARVIK_DEVICE_INFO_SIZE 20
#define TARVIK_DEVICE_INFO_TYPE_BYTE 18

typedef struct STarvikDeviceInfo
{
    unsigned char m_abData[TARVIK_DEVICE_INFO_SIZE];
} STarvikDeviceInfo;

#endif
