// Which system this is, as far as the module's behaviour depends on it.
#pragma once

namespace VaroCommunicationAPI::Platform {

/// The system's version, major times ten plus minor (Windows 7 is 61). Computed once. Above 52 where systems are not
/// counted so.
unsigned int SystemVersionNumber();

}  // namespace VaroCommunicationAPI::Platform
