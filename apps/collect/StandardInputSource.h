// Lines of standard input.
#pragma once

#include <collect/Collector.h>
#include <collect/Turn.h>
#include <collect/platform/ChangeWatch.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace sorvex::collect {

/// Keeps data until they are taken, since they cannot be read again.
class StandardInputSource {
 public:
  /// The most that it keeps; a single line may be longer.
  static constexpr std::size_t maxKeptBytes = 4 * 1024 * 1024;

  /// `source` is its number in marks. `watch` and `log` outlive it.
  StandardInputSource(std::uint64_t source, ChangeWatch& watch, const Log& log);

  std::uint64_t Source() const { return m_source; }
  void SetMaxLineBytes(std::size_t maxLineBytes) { m_maxLineBytes = maxLineBytes; }

  Turn HandOut(LineSink& sink);

  bool Taken(Mark mark);
  void Rewind();

  /// Whether a turn would find something now.
  bool IsReady() const { return m_hasLine || (m_mayHaveMore && WantsMore()); }
  bool WantsMore() const;

 private:
  void Read();

  const std::uint64_t m_source;
  const Log& m_log;
  StandardInput m_input;
  std::size_t m_maxLineBytes = InputSettings::defaultMaxLineBytes;
  std::string m_kept;           ///< data read, from somewhere before the first byte not taken
  std::uint64_t m_before = 0;   ///< bytes before it
  std::size_t m_taken = 0;      ///< bytes of it
  std::size_t m_handedOut = 0;  ///< bytes of it, no less than taken
  bool m_hasLine = false;       ///< there may be a line not yet passed on
  bool m_mayHaveMore = true;    ///< the last read found something
  bool m_hasEnded = false;
  bool m_bLongLineLogged = false;
};

}  // namespace sorvex::collect
