// The machine's key containers, which hold the agent's key pairs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace VaroCommunicationAPI::Platform {

/// Decrypts `cipherText`, most significant byte first, with the key-exchange key of the machine key container
/// `containerName` (RSA, OAEP with SHA-1; one block). Returns 0 with the plain bytes in `plainText`, or the error
/// number that `KeyErrorText` explains, with `plainText` empty. The caller wipes `plainText` after use.
int DecryptWithContainer(const std::wstring& containerName, std::span<const std::uint8_t> cipherText,
                         std::vector<std::uint8_t>& plainText);

/// The text for an error number of this header, UTF-8. Never holds key material.
std::string KeyErrorText(int error);

/// Overwrites `size` bytes in a way that a compiler does not remove.
void WipeMemory(void* data, std::size_t size);

}  // namespace VaroCommunicationAPI::Platform
