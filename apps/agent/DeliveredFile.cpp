#include <DeliveredFile.h>

#include <platform/Platform.h>
#include <shared/platform/FileReplacement.h>

#include <SorvexHost/MD5Digest.h>
#include <host/Text.h>

#include <boost/algorithm/string/predicate.hpp>

#include <locale>
#include <optional>
#include <streambuf>
#include <string_view>
#include <system_error>

namespace sorvex::agent {
namespace {

/// A device or a folder cannot, or should not, be replaced by a file.
const std::filesystem::path& Replaceable(const std::filesystem::path& path) {
  if (std::filesystem::exists(path) && !std::filesystem::is_regular_file(path)) {
    throw std::system_error(std::make_error_code(std::errc::invalid_argument),
                            WindowsAgentCommon::WideToUtf8(WindowsAgentCommon::PathToWide(path)));
  }
  return path;
}

}  // namespace

class DeliveredFile::Buffer : public std::streambuf {
 public:
  Buffer(const std::filesystem::path& path, std::uint64_t limit) : m_file(Replaceable(path)), m_limit(limit) {}

  FileReplacement& File() { return m_file; }
  std::uint64_t Size() const { return m_size.load(std::memory_order_relaxed); }
  const std::string& Begin() const { return m_begin; }
  std::string WriteError() const { return m_error ? m_error->what() : std::string(); }

  /// Returns the digest; throws the error of a failed write.
  std::string Finish() {
    if (m_error) throw std::system_error(*m_error);
    return m_digest.Finish();
  }

 protected:
  /// The writer may not expect an exception: it is kept for `Finish`.
  std::streamsize xsputn(const char* bytes, std::streamsize count) override {
    constexpr std::size_t partBytes = 0x100000;
    std::string_view rest(bytes, static_cast<std::size_t>(count));
    while (!rest.empty()) {
      if (IsInterrupted() || m_error) break;
      const std::string_view part = rest.substr(0, partBytes);
      try {
        if (part.size() > m_limit - Size()) {
          throw std::system_error(std::make_error_code(std::errc::file_too_large),
                                  "more than " + std::to_string(m_limit) + " bytes");
        }
        m_file.Write(part);
      } catch (const std::system_error& error) {
        m_error = error;
        break;
      }
      m_begin += part.substr(0, maxBeginBytes - m_begin.size());
      m_digest.Add(part.data(), part.size());
      m_size.fetch_add(part.size(), std::memory_order_relaxed);
      rest.remove_prefix(part.size());
    }
    return count - static_cast<std::streamsize>(rest.size());
  }

  int_type overflow(int_type character) override {
    if (traits_type::eq_int_type(character, traits_type::eof())) return traits_type::not_eof(character);
    const char byte = traits_type::to_char_type(character);
    return xsputn(&byte, 1) == 1 ? character : traits_type::eof();
  }

 private:
  static constexpr std::size_t maxBeginBytes = 1024;

  FileReplacement m_file;
  const std::uint64_t m_limit;
  std::string m_begin;
  WindowsAgentCommon::MD5Digest m_digest;
  std::atomic<std::uint64_t> m_size{0};
  std::optional<std::system_error> m_error;
};

DeliveredFile::DeliveredFile(const std::filesystem::path& path, std::uint64_t limit)
    : m_pBuffer(std::make_unique<Buffer>(path, limit)), m_stream(m_pBuffer.get()) {}
DeliveredFile::~DeliveredFile() = default;

std::ostream& DeliveredFile::Stream() { return m_stream; }
std::uint64_t DeliveredFile::Size() const { return m_pBuffer->Size(); }
std::string DeliveredFile::WriteError() const { return m_pBuffer->WriteError(); }

void DeliveredFile::Finish() {
  m_strDigest = m_pBuffer->Finish();
  if (!m_stream) throw std::system_error(std::make_error_code(std::errc::interrupted), "writing");
}

const std::string& DeliveredFile::Begin() const { return m_pBuffer->Begin(); }

const std::string& DeliveredFile::GetDigest() const { return m_strDigest; }

void DeliveredFile::Keep() {
  m_pBuffer->File().Flush();
  m_pBuffer->File().Commit();
}

bool AreSameDigest(const std::string& left, const std::string& right) {
  return !left.empty() && boost::algorithm::iequals(left, right, std::locale::classic());
}

}  // namespace sorvex::agent
