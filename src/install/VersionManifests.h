// Build numbers of the installed components, from their manifests.
#pragma once

#include <host/ParameterBlock.h>

#include <string>

namespace VaroCommunicationAPI {

/// Adds "BuildNumber_<component>" for every "<component>.manifest" in the directory of `installFilePath` whose first
/// 4096 bytes hold "Build Number: " and digits. What cannot be read adds nothing. Throws nothing.
void ReadVersionManifests(const std::wstring& installFilePath, WindowsAgentCommon::ParameterBlock& parameters);

}  // namespace VaroCommunicationAPI
