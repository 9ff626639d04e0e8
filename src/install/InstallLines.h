// The lines "key=value" of the installer's files.
#pragma once

#include <host/ParameterBlock.h>

#include <string_view>

namespace VaroCommunicationAPI {

/// Adds an entry for every line of `text` that begins with `prefix` and has a "=". Lines end at a line feed. The key
/// loses the white space around it, the value only the carriage returns and line feeds at its ends; it may hold "=".
void AddInstallLines(std::string_view text, std::string_view prefix, WindowsAgentCommon::ParameterBlock& parameters);

}  // namespace VaroCommunicationAPI
