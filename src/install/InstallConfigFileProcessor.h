// Reads the installer's files next to the agent's configuration.
#pragma once

#include <host/ParameterBlock.h>

#include <string>

namespace VaroCommunicationAPI {

/// Reads the install configuration file: server, port, identity, TLS range. One thread; no exception leaves it because
/// of a file's content.
class InstallConfigFileProcessor {
 public:
  /// `keyContainerName` names the machine key container of secured application tokens.
  explicit InstallConfigFileProcessor(std::wstring keyContainerName = L"Sorvex.ConfigServerConnection");

  /// Adds an entry to `parameters` for every line "key=value" within the first 4096 bytes, and replaces a secured
  /// application token with its plain text. A UTF-8 byte-order mark is skipped. Returns 0, or a system error number
  /// with the reason in `GetMessageText`: the file could not be read or is UTF-16 (nothing added), or the token could
  /// not be decrypted (left unchanged).
  int Process(const std::wstring& path, WindowsAgentCommon::ParameterBlock& parameters);

  /// Why the last `Process` failed.
  const std::string& GetMessageText() const { return m_strMessage; }

 private:
  int DecryptApplicationToken(const std::wstring& path, WindowsAgentCommon::ParameterBlock& parameters);

  std::string m_strMessage;
  std::wstring m_strKeyContainerName;
};

}  // namespace VaroCommunicationAPI
