// The server's certificate and key.
#pragma once

#include <filesystem>
#include <string>

namespace sorvex::configserver {

/// As PEM texts.
struct Identity {
  std::string certificate;
  std::string key;
};

/// Reads both files. Throws `std::runtime_error` naming the one that cannot be read.
Identity ReadIdentity(const std::filesystem::path& certificateFile, const std::filesystem::path& keyFile);

/// Makes a self-signed certificate for this machine's name and the loopback addresses, valid for ten years, and writes
/// both files; only the owner can read the key's.
void MakeIdentity(const std::filesystem::path& certificateFile, const std::filesystem::path& keyFile);

}  // namespace sorvex::configserver
