// Reads an input by whole lines, block by block.
#pragma once

#include <platform/Platform.h>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <memory>
#include <string_view>

namespace sorvex::agent {

/// Reads large blocks and returns views into them. A line ends before its line feed; bytes after the last line feed of
/// the input are a line too. A line of any length fits: the buffer grows with it. One thread.
class LineReader {
 public:
  /// `input` outlives the reader.
  explicit LineReader(InputFile& input);
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  /// Stores the next lines, at least one and as many as are available, each with its line feed; the last one of the
  /// input may lack it. They are valid until the next call. Returns false when the input has ended, or reading was
  /// stopped, and all whole lines have been returned. A stop discards an unfinished line. Throws `std::system_error` on
  /// a read error.
  bool GetLines(std::string_view& lines);

  /// Whether the input was read to its end; meaningful once there are no more lines.
  bool HasReachedEnd() const { return m_state == State::Ended; }

  /// When the bytes of the last lines were read. The clock is taken once per block: its lines came in one read.
  std::chrono::system_clock::time_point GetReadTime() const { return m_readTime; }

 private:
  enum class State { Reading, Ended, Stopped };

  /// Reads one more block after the bytes not yet returned.
  void Fill();

  InputFile& m_input;
  std::unique_ptr<char[]> m_pBuffer;
  std::size_t m_capacity;
  std::size_t m_begin = 0;    ///< first byte not returned
  std::size_t m_scanned = 0;  ///< there is no line feed between m_begin and this
  std::size_t m_end = 0;      ///< end of what was read
  State m_state = State::Reading;
  std::chrono::system_clock::time_point m_readTime;
};

/// Removes the first line from the non-empty `lines` and returns it without its line feed.
inline std::string_view TakeLine(std::string_view& lines) {
  const std::size_t length = std::min(lines.find('\n'), lines.size());
  const std::string_view line = lines.substr(0, length);
  lines.remove_prefix(std::min(length + 1, lines.size()));
  return line;
}

}  // namespace sorvex::agent
