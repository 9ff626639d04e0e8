// Base64 (RFC 4648, section 4).
#pragma once

#include <SorvexCommonExport.h>

#include <cstdint>
#include <string_view>
#include <vector>

namespace WindowsAgentCommon {

/// Decodes `text`; white space anywhere is skipped and missing padding is forgiven. Returns false and empties `bytes`
/// when the text holds another character, padding in its midst or beyond a full group, or a single left-over character.
SORVEXCOMMON_EXPORT bool DecodeBase64(std::string_view text, std::vector<std::uint8_t>& bytes);

}  // namespace WindowsAgentCommon
