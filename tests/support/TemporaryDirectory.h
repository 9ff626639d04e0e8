// A directory for a test, deleted at its end.
#pragma once

#include <host/Text.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>

namespace sorvex::test {

class TemporaryDirectory {
 public:
  /// `name` becomes part of the directory's own name; it may contain blanks and non-ASCII characters (UTF-8).
  explicit TemporaryDirectory(std::string_view name = "sorvex") {
    std::random_device random;
    for (int attempt = 0; attempt < 100; ++attempt) {
      const std::string leaf = std::string(name) + "-" + std::to_string(random()) + std::to_string(random());
      m_path =
          std::filesystem::temp_directory_path() / WindowsAgentCommon::WideToPath(WindowsAgentCommon::Utf8ToWide(leaf));
      if (std::filesystem::create_directory(m_path)) return;
    }
    throw std::runtime_error("no temporary directory could be made");
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(m_path, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  const std::filesystem::path& Path() const { return m_path; }
  std::wstring Wide() const { return WindowsAgentCommon::PathToWide(m_path); }

  /// Writes a file of exactly these bytes and returns its path. Creates parent directories.
  std::filesystem::path Write(const std::filesystem::path& relative, std::string_view content) const {
    std::filesystem::path path = m_path / relative;
    std::filesystem::create_directories(path.parent_path());
    std::ofstream file(path, std::ios::binary);
    file.write(content.data(), static_cast<std::streamsize>(content.size()));
    file.close();
    if (!file) throw std::runtime_error("cannot write " + path.string());
    return path;
  }

  static std::string Read(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }

 private:
  std::filesystem::path m_path;
};

}  // namespace sorvex::test
