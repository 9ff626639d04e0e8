// The headers of a 64-bit Windows program or library.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace sorvex::test {

struct PortableExecutable {
  /// Reads the file. Throws `std::runtime_error` when it is not a 64-bit Windows program or library.
  explicit PortableExecutable(const std::filesystem::path& path);

  std::uint32_t m_uTimestamp = 0;
  std::uint16_t m_uDllCharacteristics = 0;
  std::vector<std::string> m_exports;  ///< names, in the file's order, which is ascending
  std::vector<std::string> m_imports;  ///< file names of libraries, delayed ones included
};

}  // namespace sorvex::test
