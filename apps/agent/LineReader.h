// Splitting an input into lines, block by block.
#pragma once

#include <platform/Platform.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string_view>

namespace sorvex::agent {

/// Reads large blocks and hands out views into them. A line ends before its line feed; bytes after the last line feed
/// of the input are a line as well. A line of any length fits: the buffer grows with it. Used by one thread.
class LineReader {
 public:
  /// `input` outlives the reader.
  explicit LineReader(InputFile& input);
  ~LineReader();
  LineReader(const LineReader&) = delete;
  LineReader& operator=(const LineReader&) = delete;

  /// Stores the next line, valid until the next call, and returns true; false when the input has ended, or reading was
  /// stopped, and all whole lines are handed out. The piece of a line that a stop leaves is none. Throws
  /// `std::system_error` on a read error.
  bool GetLine(std::string_view& line);

  /// The same with all the lines that are there, each with its line feed; the last one of the input may lack it.
  bool GetLines(std::string_view& lines);

  /// Whether the input was read to its end; meaningful once there are no more lines.
  bool HasReachedEnd() const { return m_state == State::Ended; }

  /// When the bytes of the last line were read. The clock is taken once per block: its lines came in one read.
  std::chrono::system_clock::time_point GetReadTime() const { return m_readTime; }

 private:
  enum class State { Reading, Ended, Stopped };

  /// Reads one more block behind what is not handed out.
  void Fill();

  InputFile& m_input;
  std::unique_ptr<char[]> m_pBuffer;
  std::size_t m_capacity;
  std::size_t m_begin = 0;    ///< first byte not handed out
  std::size_t m_scanned = 0;  ///< no line feed stands between m_begin and this
  std::size_t m_end = 0;      ///< end of what was read
  State m_state = State::Reading;
  std::chrono::system_clock::time_point m_readTime;
};

}  // namespace sorvex::agent
