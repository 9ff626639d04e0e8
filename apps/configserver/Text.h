// Texts for people and file names, made from what agents send.
#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace sorvex::configserver {

/// The text with control characters and backslashes as \xHH, for one line of a log or file.
std::string Escape(std::string_view text);

/// The text with A to Z in lower case.
std::string LowerCase(std::string_view text);

/// An agent's identifier as the name of its folder: letters, digits, ".", "_" and "-" stay, every other byte becomes
/// %HH. So does what a file system would interpret: a full stop at either end and the first letter of a device name.
/// Different identifiers have different names. Returns nothing for an empty identifier and for one whose name would be
/// too long.
std::optional<std::string> FolderName(std::string_view identifier);

/// Whether a text is already a file name by the rules above.
bool IsFileName(std::string_view text);

/// Now, or the given seconds since 1970, as 2026-11-20T21:10:53Z.
std::string TimeText();
std::string TimeText(std::int64_t seconds);

/// Paths are UTF-8 on the command line and in messages.
std::filesystem::path Utf8ToPath(std::string_view text);
std::string PathToUtf8(const std::filesystem::path& path);

}  // namespace sorvex::configserver
