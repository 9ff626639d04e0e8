#include <Log.h>

#include <Text.h>

#include <cstdio>
#include <string>

namespace sorvex::configserver {

void WriteLog(std::string_view text) {
  const std::string line = TimeText() + " " + Escape(text) + "\n";
  std::fwrite(line.data(), 1, line.size(), stdout);
  std::fflush(stdout);
}

}  // namespace sorvex::configserver
