// The machine's key containers, which hold the agent's key pairs.
#pragma once

#include "platform/SecretText.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace VaroCommunicationAPI::Platform {

/// Decrypts `cipherText`, most significant byte first, with the key-exchange key of the machine key container
/// `containerName` (RSA, OAEP with SHA-1; one block). Returns 0 with the plain bytes in `plainText`, or the system's
/// error number with `plainText` empty.
int DecryptWithContainer(const std::wstring& containerName, std::span<const std::uint8_t> cipherText,
                         SecretText& plainText);

/// Stores in `bytes` the public half of the container's key-exchange key: the fixed 22 bytes that begin a
/// SubjectPublicKeyInfo of an RSA key of 1024 bits, deliberately the same for every size, and what `ExportRsaPublicKey`
/// stores. Returns 0, or the system's error number with `bytes` empty.
int ExportPublicKey(const std::wstring& containerName, std::vector<std::uint8_t>& bytes);

/// The first bytes of `ExportPublicKey`.
inline constexpr std::array<std::uint8_t, 22> publicKeyPrefix{0x30, 0x81, 0x9F, 0x30, 0x0D, 0x06, 0x09, 0x2A,
                                                              0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x01, 0x01,
                                                              0x05, 0x00, 0x03, 0x81, 0x8D, 0x00};

/// Stores in `bytes` the public half of the container's key-exchange key as RSAPublicKey (PKCS #1, DER). Returns 0, or
/// the system's error number.
int ExportRsaPublicKey(const std::wstring& containerName, std::vector<std::uint8_t>& bytes);

}  // namespace VaroCommunicationAPI::Platform
