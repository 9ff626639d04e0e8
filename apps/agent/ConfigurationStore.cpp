#include <ConfigurationStore.h>

#include <FileContent.h>

#include <settings/Settings.h>
#include <shared/platform/FileReplacement.h>

#include <algorithm>

namespace sorvex::agent {
namespace {

/// The module reads only this much of it, up to a zero byte.
constexpr std::size_t maxDigestBytes = 128;

void Replace(const std::filesystem::path& path, std::string_view content) {
  FileReplacement file(path);
  file.Write(content);
  file.Flush();
  file.Commit();
}

}  // namespace

ConfigurationStore::ConfigurationStore(const std::filesystem::path& directory)
    : m_file(directory / "AgentConfig.xml"), m_digestFile(directory / "AgentConfig.md5") {}

std::optional<std::string> ConfigurationStore::Read() const {
  if (!std::filesystem::exists(m_file)) return std::nullopt;
  return ReadFileContent(m_file, settings::maxSettingsBytes);
}

std::string ConfigurationStore::ReadDigest() const {
  if (!std::filesystem::exists(m_digestFile)) return {};
  std::string content = ReadFileContent(m_digestFile, maxDigestBytes);
  content.resize(std::min(content.find('\0'), std::min(content.size(), maxDigestBytes)));
  const std::size_t begin = content.find_first_not_of("\r\n");
  if (begin == std::string::npos) return {};
  return content.substr(begin, content.find_last_not_of("\r\n") + 1 - begin);
}

void ConfigurationStore::Store(std::string_view content, std::string_view digest) const {
  ForgetDigest();
  Replace(m_file, content);
  Replace(m_digestFile, digest);
}

void ConfigurationStore::ForgetDigest() const { std::filesystem::remove(m_digestFile); }

void ConfigurationStore::ForgetDigest(std::error_code& error) const { std::filesystem::remove(m_digestFile, error); }

}  // namespace sorvex::agent
