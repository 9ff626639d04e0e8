// The certificate that TLS destinations get.
#pragma once

#include <filesystem>
#include <string>

namespace sorvex::agent {

/// Reads the first certificate of a file in PEM, or the one of a file in DER, and returns it in PEM and that in Base64,
/// one line with its padding, as sockets take it. Throws `std::system_error` naming the file when it cannot be read,
/// and `std::invalid_argument` naming file and reason when it holds no certificate.
std::string ReadCertificate(const std::filesystem::path& file);

}  // namespace sorvex::agent
