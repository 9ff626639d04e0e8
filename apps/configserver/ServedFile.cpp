#include <ServedFile.h>

#include <Text.h>

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <utility>
#include <vector>

namespace sorvex::configserver {

using namespace std::chrono_literals;

ServedFile::ServedFile(const std::filesystem::path& path, std::shared_ptr<KnownDigest> known)
    : m_path(path), m_time(std::filesystem::last_write_time(path)), m_pKnown(std::move(known)) {
  m_file.open(path, std::ios::binary | std::ios::ate);
  const std::streamoff size = m_file ? static_cast<std::streamoff>(m_file.tellg()) : -1;
  m_file.seekg(0);
  if (!m_file || size < 0) throw std::runtime_error(PathToUtf8(path) + " cannot be read");
  m_size = static_cast<std::uint64_t>(size);
  if (!m_pKnown) return;
  if (m_pKnown->time == m_time && m_pKnown->size == m_size) m_digest = m_pKnown->digest;
  // The digest is not reused for a file that was replaced while it was opened, or that may still change within its
  // clock's tick.
  const bool isSettled = std::filesystem::last_write_time(path) == m_time &&
                         std::filesystem::file_time_type::clock::now() - m_time > std::chrono::seconds(2);
  if (!isSettled) m_pKnown = nullptr;
}

void ServedFile::RequireAtMost(std::uint64_t bytes) const {
  if (m_size <= bytes) return;
  throw std::runtime_error(PathToUtf8(m_path) + " is longer than " + std::to_string(bytes) +
                           " bytes, which no agent takes");
}

bool ServedFile::ComputeDigest() {
  if (!m_digest.empty()) return true;
  if (!m_pHashing) m_pHashing = std::make_unique<Digest>();
  std::vector<char> part(0x100000);
  const std::size_t count = Read(part.data(), part.size());
  m_pHashing->Add({part.data(), count});
  if (m_position < m_size) return false;

  m_digest = m_pHashing->Finish();
  m_pHashing = nullptr;
  m_file.seekg(0);
  m_position = 0;
  if (m_pKnown) *m_pKnown = {m_time, m_size, m_digest};
  return true;
}

std::size_t ServedFile::Read(char* buffer, std::size_t size) {
  const std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(size, m_size - m_position));
  m_file.read(buffer, static_cast<std::streamsize>(wanted));
  if (static_cast<std::size_t>(m_file.gcount()) != wanted) {
    throw std::runtime_error(PathToUtf8(m_path) + " became shorter while it was read");
  }
  m_position += wanted;
  return wanted;
}

}  // namespace sorvex::configserver
