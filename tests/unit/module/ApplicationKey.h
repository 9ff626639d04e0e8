// The agent's key pair as the installer makes it, and the tokens that it secures.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

struct evp_pkey_st;

namespace sorvex::test {

/// An RSA key pair. Making one takes a moment; the tests share one of each size.
class ApplicationKey {
 public:
  explicit ApplicationKey(unsigned int bits);
  ~ApplicationKey();
  ApplicationKey(const ApplicationKey&) = delete;
  ApplicationKey& operator=(const ApplicationKey&) = delete;

  static const ApplicationKey& Of(unsigned int bits);

  /// The private key as the text of a PEM file.
  std::string Pem() const;

  /// `text` encrypted with the public key (OAEP with SHA-1), most significant byte first, as RSA itself writes it.
  std::vector<std::uint8_t> Encrypt(std::string_view text) const;

  /// `text` in the form of an install file: encrypted, most significant byte first, in Base64.
  std::string Secure(std::string_view text) const;

 private:
  evp_pkey_st* m_pKey;
};

std::string EncodeBase64(const std::vector<std::uint8_t>& bytes);

/// Puts the key into the container with which the module reads secured tokens, or into another; an empty name is the
/// default one. Below the current configuration directory where the system keeps containers in files.
void StoreInContainer(const ApplicationKey& key, const std::string& containerName = "Sorvex.ConfigServerConnection");

/// Where containers are the machine's, blocks those of other test programs until this test ends. For a test whose
/// containers others make; `StoreInContainer` does it itself.
void ReserveContainers();

/// Removes a container that `StoreInContainer` made in this test.
void RemoveContainer(const std::string& containerName);

/// At the end of the scope removes a container that the agent itself has made. Where containers are files, they go with
/// the test's directory.
class ContainerRemoval {
 public:
  explicit ContainerRemoval(const std::string& containerName = "Sorvex.ConfigServerConnection");
  ~ContainerRemoval();
  ContainerRemoval(const ContainerRemoval&) = delete;
  ContainerRemoval& operator=(const ContainerRemoval&) = delete;

 private:
  std::string m_containerName;
};

}  // namespace sorvex::test
