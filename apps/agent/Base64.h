// Base64.
#pragma once

#include <string>
#include <string_view>

namespace sorvex::agent {

/// One line with its padding.
std::string EncodeBase64(std::string_view bytes);

}  // namespace sorvex::agent
