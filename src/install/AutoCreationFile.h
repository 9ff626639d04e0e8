// The log-source auto-creation file that the installer may leave.
#pragma once

#include <host/Log.h>
#include <host/ParameterBlock.h>

#include <string>

namespace VaroCommunicationAPI {

/// Adds the lines that begin with "AutoCreation." of a UTF-16 little-endian file with a byte-order mark, as UTF-8. A
/// file that cannot be read is logged at Info. Always returns true.
bool ProcessAutoCreationFile(const std::wstring& path, WindowsAgentCommon::ParameterBlock& parameters,
                             const WindowsAgentCommon::Log& log);

}  // namespace VaroCommunicationAPI
