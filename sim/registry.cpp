#include "device.h"

namespace sim {
void loadRegistryProfile(Device &, const toml::table &) {}
Registry::Registry() {}
}  // namespace sim
