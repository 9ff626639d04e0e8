// Base64 (RFC 4648, section 4).
#pragma once

#include <SorvexCommonExport.h>

#include <cstdint>
#include <string_view>
#include <vector>

namespace WindowsAgentCommon {

/// Decodes `text`, one line with its padding; skips blanks and tabs around it. Returns false and empties `bytes` when
/// the text contains a character outside the alphabet (including inner blanks and line breaks), or when padding is
/// missing, misplaced or excessive.
SORVEXCOMMON_EXPORT bool DecodeBase64(std::string_view text, std::vector<std::uint8_t>& bytes);

}  // namespace WindowsAgentCommon
