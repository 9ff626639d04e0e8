// An agent's directories for the duration of one test.
#pragma once

#include "support/TemporaryDirectory.h"

#include <SorvexHost/Directories.h>
#include <host/Paths.h>
#include <host/Text.h>

#include <filesystem>
#include <string>
#include <string_view>

namespace sorvex::test {

/// The bytes of a UTF-16 little-endian file with a byte-order mark.
inline std::string Utf16Bytes(std::u16string_view text) {
  std::string bytes = "\xFF\xFE";
  for (const char16_t unit : text) {
    bytes.push_back(static_cast<char>(unit & 0xFF));
    bytes.push_back(static_cast<char>(unit >> 8));
  }
  return bytes;
}

/// A configuration and a patch directory, set in the host and restored at the end. Their paths contain blanks and
/// non-ASCII characters, so that every test covers them.
class InstallationDirectory {
 public:
  InstallationDirectory() {
    std::filesystem::create_directory(ConfigDirectory());
    std::filesystem::create_directory(PatchDirectory());
    WindowsAgentCommon::SetConfigPath(WindowsAgentCommon::PathToWide(ConfigDirectory()));
    WindowsAgentCommon::SetPatchPath(WindowsAgentCommon::PathToWide(PatchDirectory()));
  }
  ~InstallationDirectory() {
    WindowsAgentCommon::SetConfigPath(m_previousConfigPath);
    WindowsAgentCommon::SetPatchPath(m_previousPatchPath);
  }
  InstallationDirectory(const InstallationDirectory&) = delete;
  InstallationDirectory& operator=(const InstallationDirectory&) = delete;

  std::filesystem::path Root() const { return m_directory.Path(); }
  std::filesystem::path ConfigDirectory() const { return m_directory.Path() / "config"; }
  std::filesystem::path PatchDirectory() const { return m_directory.Path() / "patch"; }
  std::filesystem::path Marker() const { return PatchDirectory() / "force.deploy"; }

  void Write(const std::filesystem::path& relative, std::string_view content) const {
    m_directory.Write(relative, content);
  }
  void WriteInstallFile(std::string_view content) const { Write("config/install_config.txt", content); }
  void WriteAutoCreationFile(std::u16string_view text) const {
    Write("config/install_config_autocreate.txt", Utf16Bytes(text));
  }
  void WriteManifest(const std::string& name, std::string_view content) const { Write("config/" + name, content); }
  void WriteMarker() const { Write("patch/force.deploy", ""); }

  /// The default path of the install file as the module forms it.
  static std::wstring InstallFile() { return WindowsAgentCommon::GetConfigPath() + L"/install_config.txt"; }
  static std::wstring AutoCreationFile() {
    return WindowsAgentCommon::GetConfigPath() + L"/install_config_autocreate.txt";
  }

 private:
  TemporaryDirectory m_directory{"Schlüssel 鍵"};
  std::wstring m_previousConfigPath = WindowsAgentCommon::GetConfigPath();
  std::wstring m_previousPatchPath = WindowsAgentCommon::GetPatchPath();
};

}  // namespace sorvex::test
