// Build numbers of the installed components, from their manifests.
#pragma once

#include <host/ParameterBlock.h>

#include <string>

namespace VaroCommunicationAPI {

/// Adds "BuildNumber_<component>" for every "<component>.manifest" in the directory of `installFilePath` whose first
/// 4096 bytes contain "Build Number: " and digits. Unreadable files add nothing. Throws nothing.
void ReadVersionManifests(const std::wstring& installFilePath, WindowsAgentCommon::ParameterBlock& parameters);

}  // namespace VaroCommunicationAPI
