#include <collect/StandardInputSource.h>

#include <collect/Lines.h>

#include <algorithm>
#include <optional>
#include <string_view>
#include <system_error>

namespace sorvex::collect {

StandardInputSource::StandardInputSource(std::uint64_t source, ChangeWatch& watch, const Log& log)
    : m_source(source), m_log(log), m_input(watch) {}

bool StandardInputSource::WantsMore() const {
  if (m_hasEnded) return false;
  // A single line may be longer than the limit for several.
  const bool isWithinLine = m_handedOut == m_taken && m_kept.size() - m_taken < BytesToTell(m_maxLineBytes);
  return isWithinLine || m_kept.size() - m_taken < maxKeptBytes;
}

void StandardInputSource::Read() {
  if (m_taken > m_kept.size() / 2) {
    m_kept.erase(0, m_taken);
    m_before += m_taken;
    m_handedOut -= m_taken;
    m_taken = 0;
  }
  const std::size_t size = m_kept.size();
  m_kept.resize(size + turnBytes);
  std::error_code error;
  const std::optional<std::size_t> count = m_input.Read(m_kept.data() + size, turnBytes, error);
  m_kept.resize(size + count.value_or(0));
  m_mayHaveMore = count.value_or(0) > 0;
  m_hasEnded = !count;
  m_hasLine = m_hasLine || m_mayHaveMore || m_hasEnded;
  if (error) m_log(Severity::Warning, "standard input cannot be read: " + error.message());
}

Turn StandardInputSource::HandOut(LineSink& sink) {
  Turn turn;
  if (!m_hasLine && WantsMore()) Read();
  while (m_hasLine && turn.bytes < turnBytes) {
    const std::string_view rest = std::string_view(m_kept).substr(m_handedOut);
    const std::optional<Line> line = FirstLine(rest, m_maxLineBytes, m_hasEnded);
    m_hasLine = line.has_value();
    if (!line) break;
    if (!sink.Take(line->text, {m_source, m_before + m_handedOut + line->size})) {
      turn.end = Turn::End::Refused;
      return turn;
    }
    if (line->isPiece && !m_bLongLineLogged) {
      m_bLongLineLogged = true;
      m_log(Severity::Warning, "standard input has lines of more than " + std::to_string(m_maxLineBytes) +
                                   " bytes, which are sent in pieces");
    }
    m_handedOut += line->size;
    turn.bytes += line->size;
  }
  if (turn.bytes > 0 || IsReady()) turn.end = Turn::End::Done;
  return turn;
}

bool StandardInputSource::Taken(Mark mark) {
  if (mark.source != m_source) return false;
  const std::uint64_t handedOut = m_before + m_handedOut;
  m_taken = static_cast<std::size_t>(std::clamp(mark.position, m_before + m_taken, handedOut) - m_before);
  return true;
}

void StandardInputSource::Rewind() {
  m_hasLine = m_hasLine || m_handedOut > m_taken;
  m_handedOut = m_taken;
}

}  // namespace sorvex::collect
