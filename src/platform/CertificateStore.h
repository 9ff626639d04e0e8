// The system's certificate stores.
#pragma once

#include "platform/Certificate.h"

#include <memory>
#include <string>

namespace VaroCommunicationAPI::Platform {

/// A store opened for reading, for one thread. Certificates added later are seen after it is opened again.
class CertificateStore {
 public:
  /// Opens the store "CA" (intermediate authorities) or "ROOT" (trusted ones). On a system without such stores it
  /// consists of the files certificates/<name>/*.pem below the configuration directory, and "ROOT" also includes the
  /// system's bundle. Returns 0, or the system's error number with the store empty.
  int Open(const std::wstring& name);

  /// Returns the first certificate whose subject equals the issuer of `certificate` byte for byte, or none.
  Certificate FindIssuer(const Certificate& certificate) const;

 private:
  /// The system's own object.
  std::shared_ptr<void> m_pNative;
};

/// The system's error number for a certificate that no store has.
extern const int certificateNotFound;

}  // namespace VaroCommunicationAPI::Platform
