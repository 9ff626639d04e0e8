// The certificate that TLS destinations get.
#pragma once

#include <filesystem>
#include <string>

namespace sorvex::agent {

/// Reads a PEM file and returns its bytes in Base64, one line with its padding, as sockets take it. Throws
/// `std::system_error` naming the file when it cannot be read.
std::string ReadCertificate(const std::filesystem::path& file);

}  // namespace sorvex::agent
