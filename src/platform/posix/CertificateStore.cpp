#include "platform/CertificateStore.h"

#include <host/Paths.h>
#include <host/Text.h>

#include <openssl/pem.h>
#include <openssl/x509.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

namespace VaroCommunicationAPI::Platform {

namespace {

using Certificates = std::vector<Certificate>;

/// Adds every certificate of a PEM file; skips everything else.
void ReadFile(const std::filesystem::path& path, Certificates& certificates) {
  // Opening a pipe would wait for its writer.
  if (std::error_code ignored; !std::filesystem::is_regular_file(path, ignored)) return;
  std::ifstream file(path, std::ios::binary);
  const std::string text{std::istreambuf_iterator<char>(file), {}};
  constexpr std::string_view begin = "-----BEGIN CERTIFICATE-----";
  for (std::size_t position = text.find(begin); position != std::string::npos;) {
    const std::size_t next = text.find(begin, position + begin.size());
    Certificate certificate;
    const std::size_t length = next == std::string::npos ? std::string::npos : next - position;
    if (Certificate::FromPem(std::string_view(text).substr(position, length), certificate) == 0) {
      certificates.push_back(certificate);
    }
    position = next;
  }
}

/// The system's own trusted certificates, where this library or other systems keep them.
std::filesystem::path SystemBundle() {
  if (const char* named = std::getenv(X509_get_default_cert_file_env())) return named;
  for (const char* usual :
       {X509_get_default_cert_file(), "/etc/ssl/certs/ca-certificates.crt", "/etc/pki/tls/certs/ca-bundle.crt"}) {
    std::error_code ignored;
    if (std::filesystem::is_regular_file(usual, ignored)) return usual;
  }
  return {};
}

}  // namespace

const int certificateNotFound = ENOKEY;

int CertificateStore::Open(const std::wstring& name) {
  m_pNative.reset();
  if (name != L"CA" && name != L"ROOT") return EINVAL;
  auto certificates = std::make_shared<Certificates>();
  const std::filesystem::path directory =
      WindowsAgentCommon::WideToPath(WindowsAgentCommon::GetConfigPath()) / "certificates" / name;
  std::vector<std::filesystem::path> files;
  std::error_code error;
  for (const auto& entry : std::filesystem::directory_iterator(directory, error)) {
    if (entry.path().extension() == ".pem") files.push_back(entry.path());
  }
  // A missing directory is an empty store.
  if (error && error != std::errc::no_such_file_or_directory) return error.value();
  std::sort(files.begin(), files.end());
  for (const std::filesystem::path& file : files) ReadFile(file, *certificates);
  if (name == L"ROOT") ReadFile(SystemBundle(), *certificates);
  m_pNative = std::move(certificates);
  return 0;
}

Certificate CertificateStore::FindIssuer(const Certificate& certificate) const {
  if (!m_pNative) return {};
  const auto nameBytes = [](const X509_NAME* name) {
    const unsigned char* bytes = nullptr;
    std::size_t size = 0;
    X509_NAME_get0_der(name, &bytes, &size);
    return std::vector<unsigned char>(bytes, bytes + size);
  };
  const std::vector<unsigned char> wanted =
      nameBytes(X509_get_issuer_name(static_cast<const X509*>(certificate.m_pNative.get())));
  for (const Certificate& candidate : *static_cast<const Certificates*>(m_pNative.get())) {
    if (nameBytes(X509_get_subject_name(static_cast<const X509*>(candidate.m_pNative.get()))) == wanted)
      return candidate;
  }
  return {};
}

}  // namespace VaroCommunicationAPI::Platform
