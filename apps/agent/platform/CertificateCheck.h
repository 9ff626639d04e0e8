// Whether bytes are a certificate.
#pragma once

#include <cstdint>
#include <span>

namespace sorvex::agent {

/// Whether `der`, one DER element, is an X.509 certificate.
bool IsCertificate(std::span<const std::uint8_t> der);

}  // namespace sorvex::agent
