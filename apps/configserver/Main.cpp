#include <CommandLine.h>
#include <Server.h>
#include <platform/Platform.h>

#include <cstdio>
#include <exception>

namespace sorvex::configserver {

int RunServer(std::vector<std::string> arguments) {
  try {
    int status = 1;
    const std::optional<Options> options = ParseCommandLine(std::move(arguments), status);
    if (!options) return status;
    Server(*options).Run();
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "sorvex-configserver: %s\n", error.what());
    return 1;
  }
}

}  // namespace sorvex::configserver
