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
/// both files; only the owner can read the key's. Throws `std::system_error` when one cannot be written or has its name
/// taken. The key gets its name last, so that a start which is killed leaves no key without its certificate: until then
/// its name is the key file's with ".unfinished" after it.
void MakeIdentity(const std::filesystem::path& certificateFile, const std::filesystem::path& keyFile);

/// Finishes what a killed `MakeIdentity` has left: gives the certificate's key its name, or removes the other name of a
/// key that has it. Replaces nothing. Expects at least one of the two files. Returns whether it has named the key.
bool FinishIdentity(const std::filesystem::path& certificateFile, const std::filesystem::path& keyFile);

}  // namespace sorvex::configserver
