// The range of TLS versions that users name.
#pragma once

#include <CommunicationAPI/SSLProtocolList.h>

#include <string>

namespace sorvex::settings {

/// Throws `std::invalid_argument` with the reason when the two do not form a range.
VaroCommunicationAPI::SSLProtocolList MakeTlsRange(const std::string& minVersion, const std::string& maxVersion);

}  // namespace sorvex::settings
