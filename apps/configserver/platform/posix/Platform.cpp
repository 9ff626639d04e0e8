#include <platform/Platform.h>

#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <array>

namespace sorvex::configserver {

std::vector<int> EndSignals() { return {SIGINT, SIGTERM}; }

void RaiseDescriptorLimit() {
  rlimit limit{};
  if (getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
  limit.rlim_cur = limit.rlim_max;
  setrlimit(RLIMIT_NOFILE, &limit);
}

bool MayReuseAddress() { return true; }

std::string GetHostName() {
  std::array<char, 256> name{};
  if (gethostname(name.data(), name.size() - 1) != 0) return "localhost";
  return name.data();
}

/// Names that differ in case are different here.
bool IsStoredAs(const std::filesystem::path&) { return true; }

}  // namespace sorvex::configserver

int main(int argc, char** argv) {
  // When a peer or a reader of our output goes away, that operation fails; the program does not end.
  signal(SIGPIPE, SIG_IGN);
  return sorvex::configserver::RunServer(argc > 0 ? std::vector<std::string>(argv + 1, argv + argc)
                                                  : std::vector<std::string>());
}
