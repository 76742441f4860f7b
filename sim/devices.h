// The device manager of the simulated device: the flash-disk driver and its disk.
#pragma once
#include "device.h"

namespace sim {

class Devices {
public:
    explicit Devices(Device &dev, const toml::table &profile);
private:
    Device &m_dev;
};

}  // namespace sim
