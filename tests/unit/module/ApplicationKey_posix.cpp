#include "ApplicationKey.h"

#include <host/Paths.h>
#include <host/Text.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>

namespace sorvex::test {

namespace {

std::filesystem::path ContainerFile(const std::string& containerName) {
  return WindowsAgentCommon::WideToPath(WindowsAgentCommon::GetConfigPath()) / "keys" /
         ((containerName.empty() ? "default" : containerName) + ".pem");
}

}  // namespace

void StoreInContainer(const ApplicationKey& key, const std::string& containerName) {
  const std::filesystem::path path = ContainerFile(containerName);
  std::filesystem::create_directories(path.parent_path());
  std::ofstream(path, std::ios::binary) << key.Pem();
  ::chmod(path.c_str(), 0600);
}

void ReserveContainers() {}

void RemoveContainer(const std::string& containerName) { std::filesystem::remove(ContainerFile(containerName)); }

ContainerRemoval::ContainerRemoval(const std::string& containerName) : m_containerName(containerName) {}
ContainerRemoval::~ContainerRemoval() = default;

}  // namespace sorvex::test
