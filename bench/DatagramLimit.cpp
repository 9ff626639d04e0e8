// The minimum cost of sending datagrams: each line of a file as one, without its line feed, in a loop of sendmmsg.
//
//   datagram_limit PORT FILE
#include "LoopbackServer.h"

#include <arpa/inet.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <fcntl.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string_view>

namespace sorvex::bench {
namespace {

void SendLines(std::uint16_t port, const char* file) {
  const int input = open(file, O_RDONLY);
  struct stat status {};
  if (input == -1 || fstat(input, &status) == -1) ThrowSystemError(file);
  const auto size = static_cast<std::size_t>(status.st_size);
  void* const mapped = mmap(nullptr, size, PROT_READ, MAP_PRIVATE, input, 0);
  if (mapped == MAP_FAILED) ThrowSystemError("mmap");

  const int socket = ::socket(AF_INET, SOCK_DGRAM, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1) ThrowSystemError("connect");

  constexpr std::size_t batch = 256;
  std::array<iovec, batch> lines;
  std::array<mmsghdr, batch> messages{};
  std::string_view rest(static_cast<const char*>(mapped), size);
  while (!rest.empty()) {
    unsigned count = 0;
    for (; count < batch && !rest.empty(); ++count) {
      const std::size_t length = std::min(rest.find('\n'), rest.size());
      lines[count] = {const_cast<char*>(rest.data()), length};
      messages[count].msg_hdr.msg_iov = &lines[count];
      messages[count].msg_hdr.msg_iovlen = 1;
      rest.remove_prefix(std::min(length + 1, rest.size()));
    }
    for (unsigned sent = 0; sent < count;) {
      const int accepted = sendmmsg(socket, messages.data() + sent, count - sent, 0);
      if (accepted == -1) ThrowSystemError("sendmmsg");
      sent += static_cast<unsigned>(accepted);
    }
  }
}

}  // namespace
}  // namespace sorvex::bench

int main(int argc, char** argv) {
  try {
    if (argc != 3) {
      std::fputs("usage: datagram_limit PORT FILE\n", stderr);
      return 2;
    }
    sorvex::bench::SendLines(static_cast<std::uint16_t>(std::atoi(argv[1])), argv[2]);
    return 0;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "datagram_limit: %s\n", error.what());
    return 1;
  }
}
