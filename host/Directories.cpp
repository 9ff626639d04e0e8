#include <SorvexHost/Directories.h>
#include <host/Paths.h>

#include "platform/DefaultDirectory.h"

#include <filesystem>
#include <mutex>

namespace WindowsAgentCommon {
namespace {

constexpr auto SEPARATOR = static_cast<wchar_t>(std::filesystem::path::preferred_separator);

struct DirectoryState {
  std::mutex m_mutex;
  std::wstring m_strConfig = GetDefaultConfigPath();
  std::wstring m_strPatch;  ///< empty: below the configuration directory
};

DirectoryState& GetState() {
  static DirectoryState state;
  return state;
}

std::wstring WithoutTrailingSeparators(std::wstring path) {
  while (!path.empty() && (path.back() == L'/' || path.back() == SEPARATOR)) path.pop_back();
  return path;
}

std::wstring Read(const std::wstring DirectoryState::*member) {
  DirectoryState& state = GetState();
  const std::lock_guard lock(state.m_mutex);
  return state.*member;
}

void Write(std::wstring DirectoryState::*member, const std::wstring& path) {
  DirectoryState& state = GetState();
  const std::lock_guard lock(state.m_mutex);
  state.*member = WithoutTrailingSeparators(path);
}

}  // namespace

std::wstring GetConfigPath() { return Read(&DirectoryState::m_strConfig); }

std::wstring GetPatchPath() {
  const std::wstring path = Read(&DirectoryState::m_strPatch);
  return path.empty() ? GetConfigPath() + SEPARATOR + L"patch" : path;
}

void SetConfigPath(const std::wstring& path) { Write(&DirectoryState::m_strConfig, path); }

void SetPatchPath(const std::wstring& path) { Write(&DirectoryState::m_strPatch, path); }

}  // namespace WindowsAgentCommon
