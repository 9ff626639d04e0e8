// The lines "key=value" of the installer's files.
#pragma once

#include <host/ParameterBlock.h>

#include <string_view>

namespace VaroCommunicationAPI {

/// Adds an entry for every line of `text` that begins with `prefix` and has a "=". Lines end at a line feed. White
/// space around the key is removed; from the ends of the value only carriage returns and line feeds are. The value may
/// contain "=".
void AddInstallLines(std::string_view text, std::string_view prefix, WindowsAgentCommon::ParameterBlock& parameters);

}  // namespace VaroCommunicationAPI
