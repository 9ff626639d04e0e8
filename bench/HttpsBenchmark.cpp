// Fetches a patch over HTTPS into a file, as a host does.
//
//   https_benchmark CONFIG_DIR SERVER TOKEN NAME FILE
//
// The server's certificate is CONFIG_DIR/Console.PEM, fetched if it is missing. Prints the bytes, the seconds that
// RetrieveSoftwarePatch took, and by how much it raised the process's peak resident memory.
#include "connection/ConfigServerConnection.h"

#include <SorvexHost/Directories.h>
#include <host/Text.h>

#include <curl/curl.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace sorvex::bench {
namespace {

/// KiB.
long MostResident() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_maxrss;
}

void Run(char** arguments) {
  WindowsAgentCommon::SetConfigPath(WindowsAgentCommon::Utf8ToWide(arguments[0]));
  VaroCommunicationAPI::ConfigServerConnection connection;
  if (!connection.Initialize({{"ConfigurationServer", arguments[1]},
                              {"ApplicationToken", arguments[2]},
                              {"ApplicationIdentifier", "bench"}})) {
    throw std::runtime_error("no connection");
  }
  // Before measuring: fetches the certificate and makes the libraries' one-time allocations.
  if (!connection.TestConnection()) throw std::runtime_error(connection.GetLastErrorMessage());
  std::ofstream file(arguments[4], std::ios::binary);
  std::string digest;
  const long before = MostResident();
  const auto begin = std::chrono::steady_clock::now();
  const bool succeeded = connection.RetrieveSoftwarePatch({arguments[3]}, file, digest);
  file.close();
  const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - begin;
  if (!succeeded || !file || connection.GetLastResultCode() != 200) {
    throw std::runtime_error("no patch: " + std::to_string(connection.GetLastResultCode()) + " " +
                             connection.GetLastErrorMessage());
  }
  std::printf("bytes: %ju\nseconds: %.3f\nmemory: %ld\n", std::filesystem::file_size(arguments[4]), elapsed.count(),
              MostResident() - before);
}

}  // namespace
}  // namespace sorvex::bench

int main(int argc, char** argv) {
  if (argc != 6) {
    std::fputs("usage: https_benchmark CONFIG_DIR SERVER TOKEN NAME FILE\n", stderr);
    return 2;
  }
  try {
    curl_global_init(CURL_GLOBAL_DEFAULT);
    sorvex::bench::Run(argv + 1);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "https_benchmark: %s\n", error.what());
    return 1;
  }
}
