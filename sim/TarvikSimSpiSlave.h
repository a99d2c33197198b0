// A device on the simulated SPI bus, seen from the gateway as bus master.
//
// The master frames every transfer with Select() (chip select falls) and Deselect()
// (chip select rises); Transfer() clocks one byte each way while selected. A slave
// that does not drive MISO answers 0xFF, as a pulled-up data line reads.
#ifndef TARVIK_SIM_TARVIKSIMSPISLAVE_H
#define TARVIK_SIM_TARVIKSIMSPISLAVE_H

class CTarvikSimSpiSlave
{
public:
    // MISO level of an undriven data line.
    static constexpr unsigned char kIdleByte = 0xFF;

    virtual ~CTarvikSimSpiSlave() = default;

    virtual void Select() = 0;
    virtual void Deselect() = 0;
    // One full-duplex byte: mosi goes out, the returned byte comes back.
    virtual unsigned char Transfer(unsigned char mosi) = 0;
    // Power-up state; non-volatile contents are kept.
    virtual void Reset() = 0;
};

#endif
