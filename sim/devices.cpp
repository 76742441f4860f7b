#include "devices.h"

namespace sim {

Devices::Devices(Device &dev, const toml::table &) : m_dev(dev) {}

std::shared_ptr<Devices> makeDevices(Device &dev, const toml::table &profile) {
    return std::make_shared<Devices>(dev, profile);
}

}  // namespace sim
