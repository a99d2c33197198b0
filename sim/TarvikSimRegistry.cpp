#include "sim/TarvikSimRegistry.h"

#include "sim/TarvikSimDeviceAD.h"
#include "sim/TarvikSimDeviceAWire.h"
#include "sim/TarvikSimDeviceCAN.h"
#include "sim/TarvikSimDeviceFirmware.h"
#include "sim/TarvikSimDeviceI2C.h"
#include "sim/TarvikSimDeviceRenesas.h"
#include "sim/TarvikSimDeviceSPI.h"
#include "sim/TarvikSimDeviceTestSystemCOM.h"
#include "sim/TarvikSimDeviceTestUnit.h"

namespace
{
struct SModel
{
    ETarvikDevice eType;
    const char* pName;
    std::unique_ptr<CTarvikSimDevice> (*pCreate)(unsigned int index, const std::shared_ptr<CTarvikSimCanBus>& bus);
};

// An explicit table rather than self-registering objects: the linker drops unreferenced
// objects of a static library, and with them their registration.
const SModel kModels[] = {
    {eTarvikI2C, "i2c",
     [](unsigned int index, const std::shared_ptr<CTarvikSimCanBus>&) -> std::unique_ptr<CTarvikSimDevice> {
         return std::make_unique<CTarvikSimDeviceI2C>(index);
     }},
    {eTarvikFirmware, "firmware",
     [](unsigned int index, const std::shared_ptr<CTarvikSimCanBus>&) -> std::unique_ptr<CTarvikSimDevice> {
         return std::make_unique<CTarvikSimDeviceFirmware>(index);
     }},
    {eTarvikCAN, "can",
     [](unsigned int index, const std::shared_ptr<CTarvikSimCanBus>& bus) -> std::unique_ptr<CTarvikSimDevice> {
         return std::make_unique<CTarvikSimDeviceCAN>(index, bus);
     }},
    {eTarvikSPI, "spi",
     [](unsigned int index, const std::shared_ptr<CTarvikSimCanBus>&) -> std::unique_ptr<CTarvikSimDevice> {
         return std::make_unique<CTarvikSimDeviceSPI>(index);
     }},
    // The digital gateway is the base device: its inputs are set from outside.
    {eTarvikDIO, "dio",
     [](unsigned int index, const std::shared_ptr<CTarvikSimCanBus>&) {
         return std::make_unique<CTarvikSimDevice>(eTarvikDIO, index);
     }},
    {eTarvikAD, "ad",
     [](unsigned int index, const std::shared_ptr<CTarvikSimCanBus>&) -> std::unique_ptr<CTarvikSimDevice> {
         return std::make_unique<CTarvikSimDeviceAD>(index);
     }},
    {eTarvikRenesas, "renesas",
     [](unsigned int index, const std::shared_ptr<CTarvikSimCanBus>&) -> std::unique_ptr<CTarvikSimDevice> {
         return std::make_unique<CTarvikSimDeviceRenesas>(index);
     }},
    {eTarvikTestSystemIO, "tsio",
     [](unsigned int index, const std::shared_ptr<CTarvikSimCanBus>&) -> std::unique_ptr<CTarvikSimDevice> {
         return std::make_unique<CTarvikSimDeviceTestUnit>(eTarvikTestSystemIO, index);
     }},
    {eTarvikTestSystemPWR, "tspwr",
     [](unsigned int index, const std::shared_ptr<CTarvikSimCanBus>&) -> std::unique_ptr<CTarvikSimDevice> {
         return std::make_unique<CTarvikSimDeviceTestUnit>(eTarvikTestSystemPWR, index);
     }},
    {eTarvikTestSystemCOM, "tscom",
     [](unsigned int index, const std::shared_ptr<CTarvikSimCanBus>&) -> std::unique_ptr<CTarvikSimDevice> {
         return std::make_unique<CTarvikSimDeviceTestSystemCOM>(index);
     }},
    {eTarvikAWire, "awire",
     [](unsigned int index, const std::shared_ptr<CTarvikSimCanBus>&) -> std::unique_ptr<CTarvikSimDevice> {
         return std::make_unique<CTarvikSimDeviceAWire>(index);
     }},
    {eTarvikTestSystemRelay, "tsrelay",
     [](unsigned int index, const std::shared_ptr<CTarvikSimCanBus>&) -> std::unique_ptr<CTarvikSimDevice> {
         return std::make_unique<CTarvikSimDeviceTestUnit>(eTarvikTestSystemRelay, index);
     }},
};
} // namespace

std::unique_ptr<CTarvikSimDevice> CTarvikSimRegistry::Create(ETarvikDevice type, unsigned int index,
                                                             const std::shared_ptr<CTarvikSimCanBus>& canBus)
{
    for (const SModel& model : kModels)
        if (model.eType == type)
            return model.pCreate(index, canBus);
    return nullptr;
}

bool CTarvikSimRegistry::FindByName(const std::string& name, ETarvikDevice& type)
{
    for (const SModel& model : kModels)
        if (name == model.pName)
        {
            type = model.eType;
            return true;
        }
    return false;
}

std::string CTarvikSimRegistry::GetShortName(ETarvikDevice type)
{
    for (const SModel& model : kModels)
        if (model.eType == type)
            return model.pName;
    return std::string();
}

std::vector<std::string> CTarvikSimRegistry::GetShortNames()
{
    std::vector<std::string> names;
    for (const SModel& model : kModels)
        names.push_back(model.pName);
    return names;
}
