#include <collect/PositionsFile.h>

#include <shared/platform/FileReplacement.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <system_error>
#include <utility>

namespace sorvex::collect {
namespace {

/// More than any number of followed files needs.
constexpr std::uint64_t maxFileBytes = 256 * 1024 * 1024;

}  // namespace

PositionsFile::PositionsFile(std::filesystem::path path, const Log& log) : m_path(std::move(path)), m_log(log) {}

Positions PositionsFile::Load() {
  Positions positions;
  if (m_path.empty()) return positions;
  std::error_code error;
  const std::unique_ptr<OpenedFile> pFile = OpenedFile::Open(m_path, error);
  if (error == std::errc::no_such_file_or_directory) return positions;
  std::string text;
  if (!error) text.resize(static_cast<std::size_t>(std::min(pFile->GetStatus(error).size, maxFileBytes)));
  if (!error) text.resize(pFile->ReadAt(0, text.data(), text.size(), error));
  if (error) {
    PutAside(error.message().c_str());
  } else if (!ReadPositions(text, positions)) {
    PutAside("it is damaged; its intact lines count");
  }
  return positions;
}

void PositionsFile::PutAside(const char* reason) {
  std::filesystem::path aside = m_path;
  aside += ".corrupt";
  std::error_code error;
  std::filesystem::rename(m_path, aside, error);
  m_log(Severity::Warning, "the positions in " + PathToText(m_path) + " cannot be read: " + reason +
                               (error ? "" : " (kept as " + PathToText(aside) + ")"));
}

bool PositionsFile::Save(std::string_view text) {
  if (m_path.empty()) return true;
  try {
    FileReplacement file(m_path, FileReplacement::Readers::Owner);
    file.Write(text);
    file.Flush();
    file.Commit();
    m_bFailureLogged = false;
    return true;
  } catch (const std::system_error& error) {
    if (!std::exchange(m_bFailureLogged, true)) {
      m_log(Severity::Warning, std::string("positions cannot be saved: ") + error.what());
    }
    return false;
  }
}

}  // namespace sorvex::collect
