// The machine's key containers, as the agent's installer makes them. The module reads the same ones.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sorvex::agent {

/// A container, by its name in UTF-8; the empty name is the default container. Every operation throws `std::exception`
/// saying what failed; no text of it contains key material.
class KeyStore {
 public:
  /// Throws `std::invalid_argument` for a name that no container can have.
  explicit KeyStore(const std::string& container);

  /// Whether there is a key pair, usable or not.
  bool HasKey() const;

  enum class Existing { Replace, Keep };

  /// Makes an RSA key pair for exchange, 1024 bits: the form in which agents send the public key fits no other size.
  /// With `Existing::Keep` it throws `std::system_error` with `std::errc::file_exists` when there is one.
  void Create(Existing existing) const;

  /// The public key: RSAPublicKey (PKCS #1, DER).
  std::vector<std::uint8_t> PublicKey() const;

  /// `plain` encrypted with the public key (OAEP with SHA-1), most significant byte first.
  std::vector<std::uint8_t> Encrypt(const std::vector<std::uint8_t>& plain) const;

 private:
  std::string m_container;
};

}  // namespace sorvex::agent
