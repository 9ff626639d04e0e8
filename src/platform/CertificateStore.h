// The system's stores of certificates.
#pragma once

#include "platform/Certificate.h"

#include <memory>
#include <string>

namespace VaroCommunicationAPI::Platform {

/// A store opened for reading, for one thread. What is added to it later is seen when it is opened anew.
class CertificateStore {
 public:
  /// Opens the store "CA" (intermediate authorities) or "ROOT" (trusted ones). Where the system has no such stores, the
  /// files certificates/<name>/*.pem below the configuration directory are the store, and "ROOT" also holds the
  /// system's own bundle. Returns 0, or the system's error number with the store empty.
  int Open(const std::wstring& name);

  /// Returns the first certificate whose subject is, byte for byte, the issuer of `certificate`; none without one.
  Certificate FindIssuer(const Certificate& certificate) const;

 private:
  /// The system's own object.
  std::shared_ptr<void> m_pNative;
};

/// The system's own error number for a certificate that no store has.
extern const int certificateNotFound;

}  // namespace VaroCommunicationAPI::Platform
