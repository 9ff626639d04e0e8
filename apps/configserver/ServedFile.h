// A file on its way to an agent.
#pragma once

#include <Digest.h>

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

namespace sorvex::configserver {

/// The digest of a file as it was at some time, kept for the next agent that asks for it.
struct KnownDigest {
  std::filesystem::file_time_type time;
  std::uint64_t size = 0;
  std::string digest;
};

/// Used by one thread. Every operation throws `std::runtime_error` or `std::system_error` naming the file when it
/// cannot be read, or is not what it was any more.
class ServedFile {
 public:
  /// Opens the file. Uses what is in `known` when the file is still the same, and notes there what it finds; null for
  /// a file that is to be read each time.
  explicit ServedFile(const std::filesystem::path& path, std::shared_ptr<KnownDigest> known = nullptr);

  std::uint64_t Size() const { return m_size; }

  /// Throws when the file is longer.
  void RequireAtMost(std::uint64_t bytes) const;

  /// Works on the digest for a few milliseconds; returns whether it is there.
  bool ComputeDigest();

  /// The digest, once it is there.
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
