// The device models the simulator can emulate, by device type and by short name.
// A new device model is one row in the table of TarvikSimRegistry.cpp.
#ifndef TARVIK_SIM_TARVIKSIMREGISTRY_H
#define TARVIK_SIM_TARVIKSIMREGISTRY_H

#include "sim/TarvikSimDevice.h"

class CTarvikSimCanBus;

#include <memory>
#include <string>
#include <vector>

class CTarvikSimRegistry
{
public:
    // A new model of the type, or null if the simulator has none. A CAN gateway joins
    // canBus (a bus of its own when null); other models ignore it.
    static std::unique_ptr<CTarvikSimDevice> Create(ETarvikDevice type, unsigned int index,
                                                    const std::shared_ptr<CTarvikSimCanBus>& canBus = nullptr);
    // Type of a short name ("spi"); false for an unknown name.
    static bool FindByName(const std::string& name, ETarvikDevice& type);
    // Short name of a type, empty if the simulator has no model of it.
    static std::string GetShortName(ETarvikDevice type);
    // Short names of all models, in table order.
    static std::vector<std::string> GetShortNames();
};

#endif
