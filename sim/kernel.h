// The kernel side of the simulated device: KernelIoControl, store information, memory status.
#pragma once
#include "device.h"

namespace sim {

class Kernel {
public:
    explicit Kernel(Device &dev, const toml::table &profile);
private:
    Device &m_dev;
};

}  // namespace sim
