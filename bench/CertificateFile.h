// The certificate of a benchmark's server, as clients need it.
#pragma once

#include <support/TlsIdentity.h>

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace sorvex::bench {

/// A file in the temporary directory with the certificate that clients trust; removed on destruction. One at a time in
/// a process.
class CertificateFile {
 public:
  explicit CertificateFile(const test::TlsIdentity& identity)
      : m_path(std::filesystem::temp_directory_path() / ("benchmark-" + std::to_string(getpid()) + ".pem")) {
    std::ofstream(m_path) << identity.CertificatePem();
  }
  ~CertificateFile() { std::filesystem::remove(m_path); }
  CertificateFile(const CertificateFile&) = delete;
  CertificateFile& operator=(const CertificateFile&) = delete;

  std::string Name() const { return m_path.string(); }

 private:
  std::filesystem::path m_path;
};

}  // namespace sorvex::bench
