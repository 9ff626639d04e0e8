// Strict UTF-8, code point by code point.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace WindowsAgentCommon {

inline constexpr char32_t REPLACEMENT_CHARACTER = 0xFFFD;

/// Reads the code point at `position`, which must be inside `text`, and moves `position` past it. Returns false for an
/// invalid sequence (overlong, surrogate, beyond U+10FFFF, cut short); `position` is then after the longest prefix of a
/// valid sequence, at least one byte further.
bool NextCodePoint(std::string_view text, std::size_t& position, char32_t& codePoint);

/// Returns the longest prefix of at most `limit` bytes that splits no sequence.
std::string_view CutUtf8(std::string_view text, std::size_t limit);

/// Appends a code point up to U+10FFFF that is not a surrogate.
void AppendUtf8(std::string& text, char32_t codePoint);

}  // namespace WindowsAgentCommon
