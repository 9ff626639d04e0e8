// A file that the configuration server delivers.
#pragma once

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <ostream>
#include <string>

namespace sorvex::agent {

/// Written beside the file that it is to replace. Until `Keep`, and whatever becomes of the program, the old one stays
/// and there is nothing of the new one. Used by one thread, but for `Size`.
class DeliveredFile {
 public:
  /// Throws `std::system_error` naming the file when none can be written there.
  explicit DeliveredFile(const std::filesystem::path& path);
  ~DeliveredFile();
  DeliveredFile(const DeliveredFile&) = delete;
  DeliveredFile& operator=(const DeliveredFile&) = delete;

  /// What is written here goes to the file. It refuses everything once the program was asked to end.
  std::ostream& Stream();

  /// Bytes that have come. Any thread.
  std::uint64_t Size() const;

  /// Ends the writing. Throws `std::system_error` when something that was written did not reach the file. Then
  /// `GetDigest` gives the MD5 of all of it, 32 lower-case hexadecimal digits.
  void Finish();
  const std::string& GetDigest() const;

  /// The first bytes that have come, at most 1024.
  const std::string& Begin() const;

  /// Gives the file its name. Throws `std::system_error`.
  void Keep();

 private:
  class Buffer;
  std::unique_ptr<Buffer> m_pBuffer;
  std::ostream m_stream;
  std::string m_strDigest;
};

/// Whether two digests are the same, whatever the case of their letters. An empty one is none.
bool AreSameDigest(const std::string& left, const std::string& right);

}  // namespace sorvex::agent
