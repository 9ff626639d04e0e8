// The version of this system, as far as the module's behaviour depends on it.
#pragma once

namespace VaroCommunicationAPI::Platform {

/// The system's version, major times ten plus minor (Windows 7 is 61). Computed once. Above 52 on systems without such
/// a version.
unsigned int SystemVersionNumber();

}  // namespace VaroCommunicationAPI::Platform
