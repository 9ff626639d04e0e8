// An agent with its configuration server.
#pragma once

#include "AgentFixture.h"
#include "integration/configserver/ConfigServerProcess.h"
#include "unit/module/ApplicationKey.h"

#include <string>
#include <vector>

namespace sorvex::test {

inline constexpr const char* token = "8a2b4c6d-0e1f-4a3b-9c5d-7e8f9a0b1c2d";

/// An agent that was installed for the server and has a key.
class ServedAgent {
 public:
  explicit ServedAgent(const std::vector<std::string>& serverArguments = {}, const std::string& installLines = {})
      : m_server(serverArguments),
        m_installation("ConfigurationServer=127.0.0.1\nConfigurationServerPort=" + std::to_string(m_server.Port()) +
                       "\nApplicationIdentifier=agent-7\nApplicationToken=" + token + "\n" + installLines) {
    ReserveContainers();
    const ProcessResult made = m_installation.Run({"key", "create", "--force"});
    EXPECT_EQ(made.status, 0) << made.errors;
    m_key = Value(made.output, "public-key");
  }

  ProcessResult Run(const std::vector<std::string>& command) const { return m_installation.Run(command); }
  ProcessResult Fetch(const std::vector<std::string>& command) const {
    std::vector<std::string> all = command;
    all.insert(all.begin() + 1, {"--out", File().string()});
    return Run(all);
  }

  const Installation& GetInstallation() const { return m_installation; }
  ConfigServer& Server() { return m_server; }
  const TemporaryDirectory& Directory() const { return m_installation.Directory(); }
  std::filesystem::path File() const { return Directory().Path() / "file"; }
  std::string FileContent() const { return TemporaryDirectory::Read(File()); }
  const std::string& Key() const { return m_key; }

 private:
  ContainerRemoval m_removal{""};
  ConfigServer m_server;
  Installation m_installation;
  std::string m_key;
};

}  // namespace sorvex::test
