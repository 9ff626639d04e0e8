// The far end of script/bench: a TCP receiver that only counts, and measures the sender that it starts itself.
//
//   counting_sink [--terminate] LINES COMMAND [ARGUMENT...]
//
// Listens on a free loopback port, starts the command with that port in the environment variable SINK_PORT, and counts
// until that many lines have come. Then it waits for the command's end, having asked for it with --terminate (for a
// daemon, which does not end by itself). Prints bytes, lines, the seconds from the first byte to the last, and what the
// command used: seconds of processor time, and the most memory that it held, in KiB.
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

// Larger than what arrives at a time, so that one system call takes all there is.
constexpr std::size_t bufferSize = 1024 * 1024;
constexpr int longestSilenceSeconds = 60;

struct Counts {
  std::uint64_t bytes = 0;
  std::uint64_t lines = 0;
  std::chrono::steady_clock::time_point first;
  std::chrono::steady_clock::time_point last;
};

pid_t sender = -1;

[[noreturn]] void Fail(const char* what) {
  std::perror(what);
  if (sender > 0) kill(sender, SIGKILL);
  std::exit(1);
}

/// Listens on the loopback interface and returns the socket; stores the port that the system chose.
int Listen(std::uint16_t& port) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (listener < 0) Fail("socket");
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (bind(listener, generic, length) != 0 || listen(listener, 16) != 0) Fail("listen");
  if (getsockname(listener, generic, &length) != 0) Fail("getsockname");
  port = ntohs(address.sin_port);
  return listener;
}

pid_t Start(char** command) {
  const pid_t id = fork();
  if (id < 0) Fail("fork");
  if (id > 0) return id;
  execvp(command[0], command);
  std::perror(command[0]);
  _exit(127);
}

/// Takes what one connection has now; returns false at its end.
bool Count(int connection, char* buffer, Counts& counts) {
  const ssize_t count = read(connection, buffer, bufferSize);
  if (count < 0) Fail("read");
  if (count == 0) return false;
  counts.last = std::chrono::steady_clock::now();
  if (counts.bytes == 0) counts.first = counts.last;
  counts.bytes += static_cast<std::uint64_t>(count);
  counts.lines += static_cast<std::uint64_t>(std::count(buffer, buffer + count, '\n'));
  return true;
}

/// Counts up to `wanted` lines over however many connections the sender makes (a daemon may have one for each of its
/// workers). Connections stay open: closing one would be a lost connection to a daemon.
void CountAll(int listener, std::uint64_t wanted, Counts& counts) {
  const auto buffer = std::make_unique<char[]>(bufferSize);
  std::vector<pollfd> watched{{listener, POLLIN, 0}};
  while (counts.lines < wanted) {
    const int ready = poll(watched.data(), watched.size(), longestSilenceSeconds * 1000);
    if (ready < 0) Fail("poll");
    if (ready == 0) {
      std::fprintf(stderr, "nothing came for %d seconds after %llu of %llu lines\n", longestSilenceSeconds,
                   static_cast<unsigned long long>(counts.lines), static_cast<unsigned long long>(wanted));
      Fail("counting_sink");
    }
    for (std::size_t i = watched.size() - 1; i > 0; --i) {
      if (watched[i].revents != 0 && !Count(watched[i].fd, buffer.get(), counts)) watched[i].fd = -1;
    }
    if (watched[0].revents != 0) {
      const int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      if (connection < 0) Fail("accept");
      watched.push_back({connection, POLLIN, 0});
    }
  }
}

double ToSeconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

}  // namespace

int main(int argc, char** argv) {
  const bool terminate = argc > 1 && std::string_view(argv[1]) == "--terminate";
  const int first = terminate ? 2 : 1;
  if (argc < first + 2) {
    std::fputs("usage: counting_sink [--terminate] LINES COMMAND [ARGUMENT...]\n", stderr);
    return 2;
  }
  const std::uint64_t wanted = std::strtoull(argv[first], nullptr, 10);
  std::uint16_t port = 0;
  const int listener = Listen(port);
  setenv("SINK_PORT", std::to_string(port).c_str(), 1);
  sender = Start(argv + first + 1);

  Counts counts;
  CountAll(listener, wanted, counts);
  if (terminate) kill(sender, SIGTERM);
  rusage usage{};
  int status = 0;
  if (wait4(sender, &status, 0, &usage) != sender) Fail("wait4");

  const std::chrono::duration<double> seconds = counts.last - counts.first;
  std::printf("bytes: %llu\nlines: %llu\nseconds: %.6f\ncpu: %.6f\nmemory: %ld\n",
              static_cast<unsigned long long>(counts.bytes), static_cast<unsigned long long>(counts.lines),
              seconds.count(), ToSeconds(usage.ru_utime) + ToSeconds(usage.ru_stime), usage.ru_maxrss);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 ? 0 : 1;
}
