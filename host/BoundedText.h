// A text that grows up to a limit and counts what it leaves out.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace WindowsAgentCommon {

/// One thread. Once something was left out, everything that follows is too.
class BoundedText {
 public:
  /// At most `limit` bytes are kept.
  explicit BoundedText(std::size_t limit = std::string::npos) : m_limit(limit) {}

  void Reserve(std::size_t size);

  /// Appends as much of `text` as fits without splitting a UTF-8 sequence.
  void Append(std::string_view text);

  /// Appends `piece` if all of it fits.
  void AppendWhole(std::string_view piece);

  /// Appends `count` times `character`, or as many as fit.
  void Append(std::size_t count, char character);

  std::string_view View() const { return m_strText; }

  /// Returns the text, followed by " [<number> more bytes]" if something was left out. Called once, last.
  std::string Take();

 private:
  /// How many more bytes may be appended.
  std::size_t Room() const { return m_omitted == 0 ? m_limit - m_strText.size() : 0; }

  std::size_t m_limit;
  std::size_t m_omitted = 0;
  std::string m_strText;
};

}  // namespace WindowsAgentCommon
