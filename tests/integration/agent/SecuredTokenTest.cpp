// An installation whose token is secured with the key in the machine's container.
#include "AgentFixture.h"

#include "unit/module/ApplicationKey.h"

#include <SorvexHost/Directories.h>
#include <host/Paths.h>

namespace sorvex::test {
namespace {

/// The test's configuration directory is the installation's, where some systems keep containers.
class ConfigurationDirectory {
 public:
  explicit ConfigurationDirectory(const Installation& installation) {
    WindowsAgentCommon::SetConfigPath(installation.Directory().Wide());
  }
  ~ConfigurationDirectory() { WindowsAgentCommon::SetConfigPath(m_previous); }
  ConfigurationDirectory(const ConfigurationDirectory&) = delete;
  ConfigurationDirectory& operator=(const ConfigurationDirectory&) = delete;

 private:
  std::wstring m_previous = WindowsAgentCommon::GetConfigPath();
};

TEST(AgentParameter, SecuredApplicationTokenIsShownDecrypted) {
  const std::string token = "8a2b4c6d-0e1f-4a3b-9c5d-7e8f9a0b1c2d";
  const ApplicationKey& key = ApplicationKey::Of(1024);
  const Installation installation("ApplicationID=7\r\nApplicationToken=" + key.Secure(token) + "\r\n");
  const ConfigurationDirectory directory(installation);
  StoreInContainer(key);
  const ProcessResult result = installation.Run({"parameter", "ApplicationToken"});
  EXPECT_EQ(result.status, 0) << result.errors;
  EXPECT_EQ(result.output, "ApplicationToken: " + token + "\n");
}

}  // namespace
}  // namespace sorvex::test
