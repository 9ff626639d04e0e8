// Small files, whole.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

namespace sorvex::agent {

/// Returns what a regular file holds, or its first `maxBytes` and one more when it holds more. Throws
/// `std::system_error` naming the file when it cannot be read.
std::string ReadFileContent(const std::filesystem::path& file, std::size_t maxBytes);

}  // namespace sorvex::agent
