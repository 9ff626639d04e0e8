// Fetches a patch of 100 MiB, the largest allowed, from the reference configuration server.
//
//   patch_benchmark [REPETITIONS]   (default: 5)
//
// In turns, each in its own process, measured from its start until the file is there:
//   - the module's connection, which writes the patch to a file;
//   - "sorvex-agent fetch-patch", which also computes the digest of what it writes, and names the file;
//   - "openssl s_client", which gets the same requests and writes everything it receives to a file;
//   - the same, followed by "openssl md5" of that file, which is the agent's work.
// All over TLS 1.2, with a server of version 2.0 and one of 1.0. Prints a Markdown table.
#include "AgentInstallation.h"
#include "Quantile.h"
#include "WireData.h"

#include "connection/SSLConfigServerConnection.h"

#include <integration/configserver/ConfigServerProcess.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <functional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace sorvex::bench {
namespace {

using SSLConfigServerProto::WireProtocol;

constexpr std::size_t patchBytes = 100 * 1024 * 1024;

struct Outcome {
  double seconds = 0;
  double cpuSeconds = 0;
  double peakMebibytes = 0;
};

/// A child process; killed if it is not waited for.
class Process {
 public:
  /// `act` returns the exit status.
  Process(const std::function<int()>& act, int input, int output) : m_process(fork()) {
    if (m_process < 0) throw std::system_error(errno, std::system_category(), "fork");
    if (m_process > 0) return;
    dup2(input, STDIN_FILENO);
    dup2(output, STDOUT_FILENO);
    // Discards everybody's messages.
    dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO);
    _exit(act());
  }
  ~Process() {
    if (m_process > 0) End();
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  Outcome Wait() {
    rusage usage{};
    if (wait4(m_process, &m_status, 0, &usage) != m_process) throw std::system_error(errno, std::system_category());
    m_process = -1;
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - m_begin;
    const auto seconds = [](const timeval& time) {
      return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return {elapsed.count(), seconds(usage.ru_utime) + seconds(usage.ru_stime),
            static_cast<double>(usage.ru_maxrss) / 1024};
  }

  Outcome End() {
    kill(m_process, SIGKILL);
    return Wait();
  }

  bool IsSuccess() const { return WIFEXITED(m_status) && WEXITSTATUS(m_status) == 0; }

 private:
  const std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
  pid_t m_process = -1;
  int m_status = 0;
};

/// Becomes another program.
int Execute(const std::vector<std::string>& command) {
  std::vector<char*> arguments;
  for (const std::string& argument : command) arguments.push_back(const_cast<char*>(argument.c_str()));
  arguments.push_back(nullptr);
  execvp(arguments[0], arguments.data());
  return 127;
}

class Descriptor {
 public:
  explicit Descriptor(int descriptor) : m_descriptor(descriptor) {
    if (descriptor < 0) throw std::system_error(errno, std::system_category());
  }
  ~Descriptor() { close(m_descriptor); }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  int Get() const { return m_descriptor; }

 private:
  const int m_descriptor;
};

/// A server with the patch.
class PatchServer : public test::ConfigServer {
 public:
  explicit PatchServer(const std::string& version)
      : ConfigServer({"--wire-version", version}), m_isVersion2(version == "2.0") {
    std::string patch(patchBytes, '\0');
    for (std::size_t i = 0; i < patch.size(); ++i) patch[i] = static_cast<char>(i * 31 >> 8);
    const std::filesystem::path file = Write("patches/core.tar.gz", patch);
    // The server would recompute the digest for each request if the file were recent, since it may still change.
    std::filesystem::last_write_time(file, std::filesystem::file_time_type::clock::now() - std::chrono::hours(1));
  }

  /// What an agent sends to get the patch.
  std::string Requests() const {
    const WireProtocol protocol = m_isVersion2 ? WireProtocol::Version2 : WireProtocol::Version1;
    SSLConfigServerProto::CodeUpdateRequest request;
    SetWireString(request.currentVersion, "x64_72_core");
    CompleteRecord(request, protocol);
    if (m_isVersion2) return EstablishmentBytes("client", agentToken) + EncodeRecord(request);
    SSLConfigServerProto::ConnectionEstablishmentRequest establishment;
    SetWireString(establishment.wireProtocolVersion, "1.0");
    SetWireString(establishment.applicationIdentifier, "client");
    SetWireString(establishment.applicationToken, agentToken);
    CompleteRecord(establishment, protocol);
    return EncodeRecord(establishment) + EncodeRecord(request);
  }

  /// The size of everything the server sends in return.
  std::size_t ResponseBytes() const { return (m_isVersion2 ? 26 + 59 : 19 + 23) + patchBytes; }

 private:
  const bool m_isVersion2;
};

class Contestants {
 public:
  explicit Contestants(const PatchServer& server) : m_server(server) {
    m_installation.Directory().Write(
        "install_config.txt",
        "ConfigurationServer=127.0.0.1\nConfigurationServerPort=" + std::to_string(server.Port()) +
            "\nApplicationIdentifier=agent\nApplicationToken=" + agentToken + "\n");
  }

  Outcome FetchByModule() const {
    const std::filesystem::path file = m_installation.Directory().Path() / "patch.tar.gz";
    return Fetch(file, [&] {
      const AgentHost host(m_installation);
      VaroCommunicationAPI::SSLConfigServerConnection connection;
      connection.Initialize(AgentHost::Parameters(m_server.Port(), "agent"));
      std::ofstream output(file, std::ios::binary);
      std::string md5;
      return connection.Connect() && connection.RetrieveSoftwarePatch({"core"}, output, md5) ? 0 : 1;
    });
  }

  Outcome FetchByAgent() const {
    const std::string directory = m_installation.Directory().Path().string();
    const std::filesystem::path file = m_installation.Directory().Path() / "patch.tar.gz";
    return Fetch(file, [&] {
      return Execute({SORVEX_AGENT_PROGRAM, "--config-dir", directory, "--patch-dir", directory + "/patch",
                      "fetch-patch", "--out", file.string(), "core"});
    });
  }

  Outcome FetchByClient() const {
    const std::filesystem::path file = ClientFile();
    const std::filesystem::path requests = m_installation.Directory().Write("requests", m_server.Requests());
    const Descriptor input(open(requests.c_str(), O_RDONLY | O_CLOEXEC));
    const Descriptor output(open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    // Quiet: it keeps reading after its own input has ended. It does not know when it has everything.
    Process client(
        [this] {
          return Execute({"openssl", "s_client", "-quiet", "-tls1_2", "-CAfile", m_installation.TrustedFile(),
                          "-connect", "127.0.0.1:" + std::to_string(m_server.Port())});
        },
        input.Get(), output.Get());
    const auto limit = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (std::filesystem::file_size(file) < m_server.ResponseBytes()) {
      if (std::chrono::steady_clock::now() > limit) throw std::runtime_error("openssl s_client has not got all");
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return client.End();
  }

  Outcome FetchAndHashByClient() const {
    const Outcome fetched = FetchByClient();
    Process process(
        [this] {
          return Execute({"openssl", "md5", ClientFile().string()});
        },
        m_nothing.Get(), m_nothing.Get());
    const Outcome hashed = process.Wait();
    if (!process.IsSuccess()) throw std::runtime_error("openssl md5 failed");
    return {fetched.seconds + hashed.seconds, fetched.cpuSeconds + hashed.cpuSeconds,
            std::max(fetched.peakMebibytes, hashed.peakMebibytes)};
  }

 private:
  std::filesystem::path ClientFile() const { return m_installation.Directory().Path() / "received"; }

  Outcome Fetch(const std::filesystem::path& file, const std::function<int()>& act) const {
    std::filesystem::remove(file);
    Process process(act, m_nothing.Get(), m_nothing.Get());
    const Outcome outcome = process.Wait();
    if (!process.IsSuccess() || std::filesystem::file_size(file) != patchBytes) {
      throw std::runtime_error("the patch was not fetched");
    }
    return outcome;
  }

  const PatchServer& m_server;
  const AgentInstallation m_installation;
  const Descriptor m_nothing{open("/dev/null", O_RDWR | O_CLOEXEC)};
};

void Compare(const std::string& version, int repetitions) {
  const PatchServer server(version);
  const Contestants contestants(server);
  struct Row {
    std::vector<double> rates, cpu, memory;
    void Add(const Outcome& outcome) {
      rates.push_back(patchBytes / 1e6 / outcome.seconds);
      cpu.push_back(outcome.cpuSeconds);
      memory.push_back(outcome.peakMebibytes);
    }
  };
  Row module;
  Row agent;
  Row client;
  Row hashingClient;
  // Warm-up: the server computes the digest once.
  contestants.FetchByAgent();
  for (int i = 0; i < repetitions; ++i) {
    module.Add(contestants.FetchByModule());
    agent.Add(contestants.FetchByAgent());
    client.Add(contestants.FetchByClient());
    hashingClient.Add(contestants.FetchAndHashByClient());
  }
  const auto print = [&](const char* title, const Row& row) {
    std::printf("| %s | %s | %.0f | %.2f | %.1f | %.2f |\n", version.c_str(), title, Median(row.rates), Median(row.cpu),
                *std::max_element(row.memory.begin(), row.memory.end()), Median(row.rates) / Median(client.rates));
  };
  print("the module", module);
  print("sorvex-agent", agent);
  print("openssl s_client", client);
  print("openssl s_client, then openssl md5", hashingClient);
}

}  // namespace
}  // namespace sorvex::bench

int main(int argc, char** argv) {
  const int repetitions = argc > 1 ? std::atoi(argv[1]) : 5;
  if (repetitions < 1) {
    std::fputs("usage: patch_benchmark [REPETITIONS]\n", stderr);
    return 2;
  }
  try {
    std::puts(
        "| Wire version | Client | Rate (MB/s) | CPU seconds | Peak memory (MiB) | Times the rate of openssl s_client "
        "|\n"
        "| --- | --- | ---: | ---: | ---: | ---: |");
    for (const char* version : {"2.0", "1.0"}) sorvex::bench::Compare(version, repetitions);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "patch_benchmark: %s\n", error.what());
    return 1;
  }
}
