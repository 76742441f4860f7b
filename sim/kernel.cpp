#include "kernel.h"

namespace sim {

Kernel::Kernel(Device &dev, const toml::table &) : m_dev(dev) {}

std::shared_ptr<Kernel> makeKernel(Device &dev, const toml::table &profile) {
    return std::make_shared<Kernel>(dev, profile);
}

}  // namespace sim
