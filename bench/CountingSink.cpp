// The receiver of script/bench, which only counts, and measures the sender that it starts itself.
//
//   counting_sink [--terminate] tcp|tls|udp EVENTS COMMAND [ARGUMENT...]
//
// Listens on a free loopback port, starts the command with that port in the environment variable SINK_PORT, and counts
// until that many lines (over UDP: datagrams) have arrived. Then waits for the command to end; with --terminate (for a
// daemon, which does not end by itself) asks it to. Prints bytes, events, the seconds from the first byte to the last,
// and the command's usage: seconds of processor time, and in KiB its peak memory, in all and its own without files
// mapped; over TLS also the records and the cipher.
#include "LoopbackServer.h"
#include "SinkReceiver.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>

namespace sorvex::bench {

void ThrowSilence(std::uint64_t events, std::uint64_t wanted) {
  throw std::runtime_error("nothing came for " + std::to_string(longestSilenceSeconds) + " seconds after " +
                           std::to_string(events) + " of " + std::to_string(wanted) + " events");
}

namespace {

pid_t Start(char** command) {
  const pid_t id = fork();
  if (id < 0) ThrowSystemError("fork");
  if (id > 0) return id;
  execvp(command[0], command);
  std::perror(command[0]);
  _exit(127);
}

/// Samples the memory of a process that is not mapped from files: what it holds beyond its program and its libraries.
class OwnMemoryWatch {
 public:
  explicit OwnMemoryWatch(pid_t process) : m_directory("/proc/" + std::to_string(process)) {}

  /// Returns the peak since the process last became another program, in KiB. Ends the watch.
  long Finish() {
    m_thread.request_stop();
    m_thread.join();
    return m_peak;
  }

 private:
  void Run(const std::stop_token& stop) {
    std::filesystem::path program;
    while (!stop.stop_requested()) {
      std::error_code ended;
      if (const auto now = std::filesystem::read_symlink(m_directory + "/exe", ended); !ended && now != program) {
        program = now;
        m_peak = 0;
      }
      m_peak = std::max(m_peak, OwnMemory());
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }

  /// 0 if the process has ended.
  long OwnMemory() const {
    std::ifstream status(m_directory + "/status");
    for (std::string name; status >> name; status.ignore(std::numeric_limits<std::streamsize>::max(), '\n')) {
      long kibibytes = 0;
      if (name == "RssAnon:" && status >> kibibytes) return kibibytes;
    }
    return 0;
  }

  const std::string m_directory;
  long m_peak = 0;  ///< written by the thread until it ends
  std::jthread m_thread{[this](const std::stop_token& stop) { Run(stop); }};
};

std::unique_ptr<SinkReceiver> MakeReceiver(std::string_view transport) {
  if (transport == "tcp") return MakeTcpReceiver();
  if (transport == "tls") return MakeTlsReceiver();
  if (transport == "udp") return MakeUdpReceiver();
  return nullptr;
}

double ToSeconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

void Print(const Counts& counts, const rusage& usage, long ownMemory) {
  const std::chrono::duration<double> seconds = counts.last - counts.first;
  std::printf("bytes: %llu\nevents: %llu\nseconds: %.6f\ncpu: %.6f\nmemory: %ld\nown-memory: %ld\n",
              static_cast<unsigned long long>(counts.bytes), static_cast<unsigned long long>(counts.events),
              seconds.count(), ToSeconds(usage.ru_utime) + ToSeconds(usage.ru_stime), usage.ru_maxrss, ownMemory);
  if (counts.records > 0) {
    std::printf("records: %llu\ncipher: %s\n", static_cast<unsigned long long>(counts.records), counts.cipher.c_str());
  }
}

/// Returns whether the command succeeded.
bool Measure(SinkReceiver& receiver, std::uint64_t wanted, bool terminate, char** command) {
  setenv("SINK_PORT", std::to_string(receiver.Port()).c_str(), 1);
  const pid_t sender = Start(command);
  OwnMemoryWatch ownMemory(sender);
  Counts counts;
  try {
    receiver.CountAll(wanted, counts);
  } catch (const std::exception&) {
    kill(sender, SIGKILL);
    throw;
  }
  if (terminate) kill(sender, SIGTERM);
  rusage usage{};
  int status = 0;
  if (wait4(sender, &status, 0, &usage) != sender) ThrowSystemError("wait4");
  Print(counts, usage, ownMemory.Finish());
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

}  // namespace
}  // namespace sorvex::bench

int main(int argc, char** argv) {
  using namespace sorvex::bench;
  const bool terminate = argc > 1 && std::string_view(argv[1]) == "--terminate";
  const int first = terminate ? 2 : 1;
  try {
    const auto receiver = argc < first + 3 ? nullptr : MakeReceiver(argv[first]);
    if (!receiver) {
      std::fputs("usage: counting_sink [--terminate] tcp|tls|udp EVENTS COMMAND [ARGUMENT...]\n", stderr);
      return 2;
    }
    return Measure(*receiver, std::strtoull(argv[first + 1], nullptr, 10), terminate, argv + first + 2) ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "counting_sink: %s\n", error.what());
    return 1;
  }
}
