// Puts a certificate into one of the system's stores for the duration of a test.
#pragma once

#include "platform/Certificate.h"

#include <filesystem>
#include <string>

namespace sorvex::test {

/// Puts the certificate into the store that `CertificateStore::Open` opens by this name, and removes it at the end.
class CertificateInStore {
 public:
  CertificateInStore(const std::wstring& store, const VaroCommunicationAPI::Platform::Certificate& certificate);
  ~CertificateInStore();
  CertificateInStore(const CertificateInStore&) = delete;
  CertificateInStore& operator=(const CertificateInStore&) = delete;

 private:
  std::wstring m_strStore;
  std::filesystem::path m_record;  ///< where the store is a directory
  VaroCommunicationAPI::Platform::Certificate m_certificate;
};

}  // namespace sorvex::test
