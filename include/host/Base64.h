// Base64 (RFC 4648, section 4).
#pragma once

#include <SorvexCommonExport.h>

#include <cstdint>
#include <string_view>
#include <vector>

namespace WindowsAgentCommon {

/// Decodes `text`, one line with its padding; blanks and tabulators around it are skipped. Returns false and empties
/// `bytes` when the text holds a character outside the alphabet, line breaks and blanks inside among them, or padding
/// that is missing, in its midst or too much.
SORVEXCOMMON_EXPORT bool DecodeBase64(std::string_view text, std::vector<std::uint8_t>& bytes);

}  // namespace WindowsAgentCommon
