// Making the log file.
#pragma once

#include <filesystem>

namespace WindowsAgentCommon {

/// Makes the file unless it exists, with mode 0640 where the system has modes, and leaves its content alone. Throws
/// `std::system_error` naming the file when it cannot be opened for writing.
void CreateLogFile(const std::filesystem::path& file);

}  // namespace WindowsAgentCommon
