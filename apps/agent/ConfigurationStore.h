// The agent's configuration: AgentConfig.xml and AgentConfig.md5.
#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace sorvex::agent {

/// Both files are replaced by a rename. One thread at a time. Operations throw `std::system_error` naming the file.
class ConfigurationStore {
 public:
  explicit ConfigurationStore(const std::filesystem::path& directory);

  const std::filesystem::path& File() const { return m_file; }

  /// Nothing when there is none. At most one byte more than a configuration may have.
  std::optional<std::string> Read() const;

  /// The server's fingerprint of the configuration; empty when there is none.
  std::string ReadDigest() const;

  /// Replaces both. The digest is removed first and written last, so a program that dies leaves no digest next to a
  /// different configuration; without a digest the server sends the configuration again.
  void Store(std::string_view content, std::string_view digest) const;

  /// Makes the server send its configuration again.
  void ForgetDigest() const;
  void ForgetDigest(std::error_code& error) const;

 private:
  std::filesystem::path m_file;
  std::filesystem::path m_digestFile;
};

}  // namespace sorvex::agent
