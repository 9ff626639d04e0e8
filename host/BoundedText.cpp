#include "BoundedText.h"

#include "Utf8.h"

#include <algorithm>
#include <utility>

namespace WindowsAgentCommon {

void BoundedText::Reserve(std::size_t size) { m_strText.reserve(std::min(size, m_limit)); }

void BoundedText::Append(std::string_view text) {
  const std::string_view kept = CutUtf8(text, Room());
  m_strText += kept;
  m_omitted += text.size() - kept.size();
}

void BoundedText::AppendWhole(std::string_view piece) {
  if (piece.size() <= Room()) {
    m_strText += piece;
  } else {
    m_omitted += piece.size();
  }
}

void BoundedText::Append(std::size_t count, char character) {
  const std::size_t kept = std::min(count, Room());
  m_strText.append(kept, character);
  m_omitted += count - kept;
}

std::string BoundedText::Take() {
  if (m_omitted > 0) m_strText += " [" + std::to_string(m_omitted) + " more bytes]";
  return std::move(m_strText);
}

}  // namespace WindowsAgentCommon
