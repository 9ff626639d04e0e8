// A file being sent to an agent.
#pragma once

#include <Digest.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

namespace sorvex::configserver {

/// The digest of a file at some time, kept for the next agent that asks for it.
struct KnownDigest {
  std::filesystem::file_time_type time;
  std::uint64_t size = 0;
  std::string digest;
};

/// One thread. Every operation throws `std::runtime_error` or `std::system_error` naming the file when it cannot be
/// read or has changed.
class ServedFile {
 public:
  /// Opens the file. Uses `known` if the file is still the same, and stores there what it finds; null for a file that
  /// must be read each time.
  explicit ServedFile(const std::filesystem::path& path, std::shared_ptr<KnownDigest> known = nullptr);

  std::uint64_t Size() const { return m_size; }

  /// Throws when the file is longer.
  void RequireAtMost(std::uint64_t bytes) const;

  /// Works on the digest for a few milliseconds; returns whether it is ready.
  bool ComputeDigest();

  /// The digest, once it is ready.
  const std::string& GetDigest() const { return m_digest; }

  /// Stores the next bytes, at most `size`, and returns their number; 0 after `Size` bytes.
  std::size_t Read(char* buffer, std::size_t size);

 private:
  std::filesystem::path m_path;
  std::ifstream m_file;
  std::uint64_t m_size = 0;
  std::uint64_t m_position = 0;
  std::filesystem::file_time_type m_time;
  std::shared_ptr<KnownDigest> m_pKnown;
  std::unique_ptr<Digest> m_pHashing;
  std::string m_digest;
};

}  // namespace sorvex::configserver
