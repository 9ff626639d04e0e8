// The certificate of TLS destinations.
#pragma once

#include <filesystem>
#include <string>

namespace sorvex::agent {

/// Finds the first certificate of a PEM text, or takes a DER block, and returns it as PEM in Base64, one line with its
/// padding, as sockets take it. Throws `std::invalid_argument` with the reason when there is none.
std::string EncodeCertificate(const std::string& content);

/// Does the same with a file's content. Throws `std::system_error` naming the file when it cannot be read, and
/// `std::invalid_argument` naming file and reason when it holds no certificate.
std::string ReadCertificate(const std::filesystem::path& file);

}  // namespace sorvex::agent
