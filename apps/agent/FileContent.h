// Small files, whole.
#pragma once

#include <cstddef>
#include <filesystem>
#include <string>

namespace sorvex::agent {

/// Returns a regular file's content; of a longer one, the first `maxBytes` and one more. Throws `std::system_error`
/// naming the file when it cannot be read.
std::string ReadFileContent(const std::filesystem::path& file, std::size_t maxBytes);

}  // namespace sorvex::agent
