#include "device.h"

namespace sim {
void loadStorageProfile(Device &, const toml::table &) {}
FileSystem::FileSystem(fs::path root) : m_root(std::move(root)) {}
}  // namespace sim
