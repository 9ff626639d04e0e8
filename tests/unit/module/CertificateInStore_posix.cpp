// The store is a directory of the installation.
#include "CertificateInStore.h"

#include <host/Paths.h>
#include <host/Text.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace sorvex::test {

namespace {

std::filesystem::path Directory(const std::wstring& store) {
  return WindowsAgentCommon::WideToPath(WindowsAgentCommon::GetConfigPath()) / "certificates" / store;
}

}  // namespace

CertificateInStore::CertificateInStore(const std::wstring& store,
                                       const VaroCommunicationAPI::Platform::Certificate& certificate)
    : m_strStore(store), m_certificate(certificate) {
  std::filesystem::create_directories(Directory(store));
  static int number = 0;
  m_record = Directory(store) / ("test" + std::to_string(++number) + ".pem");
  std::ofstream(m_record, std::ios::binary) << certificate.Pem();
}

CertificateInStore::~CertificateInStore() {
  std::error_code ignored;
  std::filesystem::remove(m_record, ignored);
}

}  // namespace sorvex::test
