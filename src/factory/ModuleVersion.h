// The version of the module.
#pragma once

namespace VaroCommunicationAPI {

constexpr int versionMajor = 7;
constexpr int versionMinor = 2;
constexpr int versionPatch = 5;

}  // namespace VaroCommunicationAPI
