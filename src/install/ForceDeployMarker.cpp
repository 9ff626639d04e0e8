#include "install/ForceDeployMarker.h"

#include <host/Paths.h>
#include <host/Text.h>

#include <boost/algorithm/string/predicate.hpp>

#include <filesystem>
#include <system_error>

namespace VaroCommunicationAPI {

namespace {

/// Two slashes, deliberately: this is the path that other programs of the agent use.
std::filesystem::path MarkerPath() {
  return WindowsAgentCommon::WideToPath(WindowsAgentCommon::GetPatchPath() + L"//force.deploy");
}

bool ArePatchArchivesWaiting() {
  std::error_code error;
  std::filesystem::directory_iterator entry(WindowsAgentCommon::WideToPath(WindowsAgentCommon::GetPatchPath()), error);
  for (; !error && entry != std::filesystem::directory_iterator(); entry.increment(error)) {
    const std::string name = WindowsAgentCommon::WideToUtf8(WindowsAgentCommon::PathToWide(entry->path().filename()));
    if (boost::algorithm::iends_with(name, ".tar.gz")) return true;
  }
  return false;
}

}  // namespace

bool IsForceDeployRequested() {
  std::error_code ignored;
  return std::filesystem::exists(MarkerPath(), ignored);
}

void TidyForceDeployMarker(const WindowsAgentCommon::Log& log) {
  if (!IsForceDeployRequested()) return;
  if (ArePatchArchivesWaiting()) {
    log.Debug(
        "There are patch files in the patch directory; leaving the force.deploy file in place so that the next restart "
        "attempts to deploy them again.");
    return;
  }
  std::error_code ignored;
  std::filesystem::remove(MarkerPath(), ignored);
}

}  // namespace VaroCommunicationAPI
