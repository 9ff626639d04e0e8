#include "install/InstallConfigFileProcessor.h"

#include "install/ApplicationToken.h"
#include "install/InstallLines.h"
#include "platform/Files.h"
#include "platform/KeyContainer.h"
#include "platform/SecretText.h"

#include <host/Base64.h>
#include <host/Log.h>
#include <host/SystemError.h>

#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

namespace VaroCommunicationAPI {

namespace {

/// Anything beyond is ignored, on purpose.
constexpr std::size_t maxInstallFileBytes = 4096;

/// The plain form is an identifier with dashes, at most this long.
constexpr std::size_t maxPlainTokenLength = 40;

/// Some editors put this in front of UTF-8.
constexpr std::string_view utf8Mark = "\xEF\xBB\xBF";

bool HasUtf16Mark(std::string_view text) { return text.starts_with("\xFF\xFE") || text.starts_with("\xFE\xFF"); }

bool IsSecured(const std::string& token) {
  return !token.empty() && (token.size() > maxPlainTokenLength || token.find('-') == std::string::npos);
}

}  // namespace

InstallConfigFileProcessor::InstallConfigFileProcessor(std::wstring keyContainerName)
    : m_strKeyContainerName(std::move(keyContainerName)) {}

int InstallConfigFileProcessor::Process(const std::wstring& path, WindowsAgentCommon::ParameterBlock& parameters) {
  m_strMessage.clear();
  Platform::SecretText content;
  if (const int error = Platform::ReadFileHead(path, maxInstallFileBytes, content); error != 0) {
    m_strMessage = WindowsAgentCommon::Format(
        "Couldn't find the application install parameters (in file %s) - we need these parameters. Reason: %s", path,
        WindowsAgentCommon::GetLastErrorText(error));
    return error;
  }
  std::string_view text = content.View();
  if (HasUtf16Mark(text)) {
    // Its lines would only give keys that nobody looks up, and a token that nobody wipes.
    m_strMessage = "The file begins with a UTF-16 byte-order mark; it has to be UTF-8";
    return static_cast<int>(std::errc::illegal_byte_sequence);
  }
  if (text.starts_with(utf8Mark)) text.remove_prefix(utf8Mark.size());
  AddInstallLines(text, {}, parameters);
  return DecryptApplicationToken(path, parameters);
}

int InstallConfigFileProcessor::DecryptApplicationToken(const std::wstring& path,
                                                        WindowsAgentCommon::ParameterBlock& parameters) {
  // Look-ups find the first of several entries.
  const auto [token, last] = parameters.equal_range(applicationTokenKey);
  if (token == last || !IsSecured(token->second)) return 0;

  // These bytes reveal a plain token that was taken for a secured one.
  Platform::PlainSecret<std::vector<std::uint8_t>> cipherText;
  WindowsAgentCommon::DecodeBase64(token->second, *cipherText);
  Platform::SecretText plainText;
  const int error = Platform::DecryptWithContainer(m_strKeyContainerName, *cipherText, plainText);
  if (error != 0) {
    m_strMessage = WindowsAgentCommon::Format(
        "Couldn't decode the secure application token provided in %s (%s). Proceeding as if it is ok, but the config "
        "server may have something to say about it later...",
        path, WindowsAgentCommon::GetLastErrorText(error));
    return error;
  }
  Platform::WipePlain(token->second);
  token->second = plainText.View();
  return 0;
}

}  // namespace VaroCommunicationAPI
