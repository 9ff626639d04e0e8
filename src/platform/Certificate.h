// X.509 certificates as the system reads and displays them.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace VaroCommunicationAPI::Platform {

/// A certificate, or none. Immutable; copies share it; any thread.
class Certificate {
 public:
  /// The longest encoding that `FromPem` accepts, in bytes.
  static constexpr std::size_t maxPemCertificateBytes = 16384;

  /// Of a name, in UTF-16.
  static constexpr std::size_t maxNameUnits = 127;

  /// Reads one certificate. Returns 0, or the system's error number with `certificate` unchanged.
  static int FromDer(std::span<const std::uint8_t> bytes, Certificate& certificate);

  /// Reads the first certificate of a PEM text; otherwise as `FromDer`.
  static int FromPem(std::string_view text, Certificate& certificate);

  explicit operator bool() const { return m_pNative != nullptr; }

  // Call the following only on a certificate, not on none.

  std::vector<std::uint8_t> Der() const;

  /// The begin line, Base64 in lines of 64 characters, the end line; a line feed after each.
  std::string Pem() const;

  /// Names for people, cut after `maxNameUnits`. The display name is the subject's first common name, else
  /// organizational unit, organization or e-mail address, else the first alternative e-mail address, else the first
  /// attribute. The other two contain all values in the certificate's order, ", " between relative names and " + "
  /// within one; a value is quoted when it is empty, has blanks at its ends or contains one of , + = " < > # ; or a
  /// line feed.
  std::wstring DisplayName() const;
  std::wstring SubjectName() const;
  std::wstring IssuerName() const;

 private:
  friend class CertificateStore;

  /// The system's own object.
  std::shared_ptr<const void> m_pNative;
};

}  // namespace VaroCommunicationAPI::Platform
