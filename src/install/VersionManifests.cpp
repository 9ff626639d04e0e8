#include "install/VersionManifests.h"

#include "platform/Files.h"

#include <host/Text.h>

#include <boost/algorithm/string/predicate.hpp>
#include <boost/regex.hpp>

#include <filesystem>
#include <string_view>
#include <system_error>

namespace VaroCommunicationAPI {

namespace {

constexpr std::size_t maxManifestBytes = 4096;
constexpr std::string_view manifestEnding = ".manifest";

/// The file name up to its last ".manifest"; the whole name when it has none.
std::string ComponentName(const std::string& fileName) { return fileName.substr(0, fileName.rfind(manifestEnding)); }

}  // namespace

void ReadVersionManifests(const std::wstring& installFilePath, WindowsAgentCommon::ParameterBlock& parameters) {
  static const boost::regex buildNumber(R"(Build Number: (\d+))");

  const std::size_t separator = installFilePath.find_last_of(L"/\\");
  const std::wstring directory = separator == std::wstring::npos ? L"." : installFilePath.substr(0, separator);
  std::error_code error;
  std::filesystem::directory_iterator entry(WindowsAgentCommon::WideToPath(directory.empty() ? L"/" : directory),
                                            error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    const std::wstring wideName = WindowsAgentCommon::PathToWide(entry->path().filename());
    const std::string fileName = WindowsAgentCommon::WideToUtf8(wideName);
    if (!boost::algorithm::iends_with(fileName, manifestEnding)) continue;

    Platform::SecretText content;
    std::wstring path = directory;
    path.append(L"/").append(wideName);
    if (Platform::ReadFileHead(path, maxManifestBytes, content) != 0) continue;
    const std::string_view text = content.View();
    if (boost::cmatch match; boost::regex_search(text.data(), text.data() + text.size(), match, buildNumber)) {
      parameters.emplace("BuildNumber_" + ComponentName(fileName), match[1].str());
    }
  }
}

}  // namespace VaroCommunicationAPI
