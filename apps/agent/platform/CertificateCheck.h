// Whether bytes are a certificate.
#pragma once

#include <cstdint>
#include <span>

namespace sorvex::agent {

/// Whether `der` is exactly one X.509 certificate in DER.
bool IsCertificate(std::span<const std::uint8_t> der);

}  // namespace sorvex::agent
