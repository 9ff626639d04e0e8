// The file that keeps positions across restarts.
#pragma once

#include <collect/Collector.h>
#include <collect/Positions.h>

#include <filesystem>
#include <string_view>

namespace sorvex::collect {

class PositionsFile {
 public:
  /// An empty path keeps nothing. `log` outlives it.
  PositionsFile(std::filesystem::path path, const Log& log);

  /// Returns the stored positions. A damaged file is renamed; its readable lines count.
  Positions Load();

  /// Replaces the whole file by `text`. Returns whether that succeeded; a failure is logged once until it succeeds
  /// again.
  bool Save(std::string_view text);

 private:
  void PutAside(const char* reason);

  const std::filesystem::path m_path;
  const Log& m_log;
  bool m_bFailureLogged = false;
};

}  // namespace sorvex::collect
