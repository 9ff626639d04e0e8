#include <LineReader.h>

#include <cstring>
#include <optional>
#include <utility>

namespace sorvex::agent {
namespace {

constexpr std::size_t blockSize = 1024 * 1024;

}  // namespace

// The buffer is written before it is read; clearing it would be useless.
LineReader::LineReader(InputFile& input)
    : m_input(input), m_pBuffer(std::make_unique_for_overwrite<char[]>(blockSize)), m_capacity(blockSize) {}

LineReader::~LineReader() = default;

bool LineReader::GetLines(std::string_view& lines) {
  for (;;) {
    const std::string_view rest(m_pBuffer.get() + m_begin, m_end - m_begin);
    const std::size_t lineFeed = rest.substr(m_scanned - m_begin).rfind('\n');
    if (lineFeed != std::string_view::npos) {
      lines = rest.substr(0, m_scanned - m_begin + lineFeed + 1);
      m_begin += lines.size();
      m_scanned = m_end;
      return true;
    }
    m_scanned = m_end;
    if (m_state == State::Reading) {
      Fill();
      continue;
    }
    if (m_state == State::Stopped || rest.empty()) return false;
    lines = rest;
    m_begin = m_scanned = m_end;
    return true;
  }
}

void LineReader::Fill() {
  const std::size_t rest = m_end - m_begin;
  if (rest > m_capacity / 2) {
    std::unique_ptr<char[]> larger = std::make_unique_for_overwrite<char[]>(m_capacity * 2);
    std::memcpy(larger.get(), m_pBuffer.get() + m_begin, rest);
    m_pBuffer = std::move(larger);
    m_capacity *= 2;
  } else if (m_begin > 0) {
    std::memmove(m_pBuffer.get(), m_pBuffer.get() + m_begin, rest);
  }
  m_begin = 0;
  m_scanned = m_end = rest;

  const std::optional<std::size_t> count = m_input.Read(m_pBuffer.get() + m_end, m_capacity - m_end);
  if (!count) {
    m_state = State::Stopped;
    return;
  }
  m_readTime = std::chrono::system_clock::now();
  if (*count == 0) m_state = State::Ended;
  m_end += *count;
}

}  // namespace sorvex::agent
