// A file that the configuration server delivers.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <ostream>
#include <string>

namespace sorvex::agent {

/// Written next to the file that it replaces. Until `Keep`, even if the program dies, the old file stays and nothing of
/// the new one is visible. One thread, except `Size`.
class DeliveredFile {
 public:
  /// More than any patch; a server that never ends must not fill the disk.
  static constexpr std::uint64_t maxBytes = 1024 * 1024 * 1024;

  /// Throws `std::system_error` naming the file when none can be written there.
  explicit DeliveredFile(const std::filesystem::path& path, std::uint64_t limit = maxBytes);
  ~DeliveredFile();
  DeliveredFile(const DeliveredFile&) = delete;
  DeliveredFile& operator=(const DeliveredFile&) = delete;

  /// The stream that writes to the file. It refuses everything after a write that failed, beyond the limit, and once
  /// the program was asked to end.
  std::ostream& Stream();

  /// Bytes received. Any thread.
  std::uint64_t Size() const;

  /// Why a write failed; empty if none did.
  std::string WriteError() const;

  /// Ends the writing. Throws `std::system_error` when a write did not reach the file. Afterwards `GetDigest` returns
  /// the MD5 of the whole file, 32 lower-case hexadecimal digits.
  void Finish();
  const std::string& GetDigest() const;

  /// The first bytes received, at most 1024.
  const std::string& Begin() const;

  /// Gives the file its name. Throws `std::system_error`.
  void Keep();

 private:
  class Buffer;
  std::unique_ptr<Buffer> m_pBuffer;
  std::ostream m_stream;
  std::string m_strDigest;
};

/// Whether two digests are equal, ignoring case. An empty one equals none.
bool AreSameDigest(const std::string& left, const std::string& right);

}  // namespace sorvex::agent
