// The file that keeps positions across restarts.
#pragma once

#include <collect/Collector.h>
#include <collect/Positions.h>

#include <filesystem>

namespace sorvex::collect {

class PositionsFile {
 public:
  /// An empty path keeps nothing. `log` outlives it.
  PositionsFile(std::filesystem::path path, const Log& log);

  /// Returns what is kept. A file that is not what was written is put aside; what can be read of it counts.
  Positions Load();

  /// Replaces the file as a whole. Returns whether that was done; a failure is logged once until it succeeds again.
  bool Save(const Positions& positions);

 private:
  void PutAside(const char* reason);

  const std::filesystem::path m_path;
  const Log& m_log;
  bool m_bFailureLogged = false;
};

}  // namespace sorvex::collect
