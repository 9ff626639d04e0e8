#include "ApplicationKey.h"

#include <host/Paths.h>
#include <host/Text.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>

namespace sorvex::test {

void StoreInContainer(const ApplicationKey& key, const std::string& containerName) {
  const std::filesystem::path directory = WindowsAgentCommon::WideToPath(WindowsAgentCommon::GetConfigPath()) / "keys";
  std::filesystem::create_directories(directory);
  const std::filesystem::path path = directory / (containerName + ".pem");
  std::ofstream(path, std::ios::binary) << key.Pem();
  ::chmod(path.c_str(), 0600);
}

ContainerRemoval::ContainerRemoval(const std::string& containerName) : m_containerName(containerName) {}
ContainerRemoval::~ContainerRemoval() = default;

}  // namespace sorvex::test
