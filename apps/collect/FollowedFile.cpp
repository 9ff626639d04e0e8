#include <collect/FollowedFile.h>

#include <collect/Fingerprint.h>

#include <algorithm>
#include <array>
#include <string>
#include <string_view>

namespace sorvex::collect {

void ExtendHead(Head& head, std::uint64_t offset, std::string_view bytes, std::uint64_t position) {
  const std::uint64_t end = std::min<std::uint64_t>({position, Head::maxLength, offset + bytes.size()});
  if (offset > head.length || end <= head.length) return;
  if (head.length == 0) head.hash = Fingerprint::ofNothing;
  head.hash = Fingerprint::Extend(head.hash, bytes.substr(head.length - offset, end - head.length));
  head.length = end;
}

Head ReadHead(const OpenedFile& file, std::uint64_t length, std::error_code& error) {
  std::array<char, Head::maxLength> buffer{};
  const std::size_t wanted = static_cast<std::size_t>(std::min<std::uint64_t>(length, buffer.size()));
  const std::size_t count = file.ReadAt(0, buffer.data(), wanted, error);
  Head head;
  ExtendHead(head, 0, {buffer.data(), count}, count);
  return head;
}

bool HasHead(const OpenedFile& file, std::uint64_t size, const Head& head, std::error_code& error) {
  error.clear();
  if (size < head.length) return false;
  if (head.length == 0) return true;
  const Head found = ReadHead(file, head.length, error);
  return found.length == head.length && found.hash == head.hash;
}

bool IsSameSoFar(const OpenedFile& file, const OpenedFile& other, std::uint64_t size, std::error_code& error) {
  const std::uint64_t length = std::min<std::uint64_t>(size, Head::maxLength);
  for (const std::uint64_t offset : {std::uint64_t{0}, size - length}) {
    std::array<std::array<char, Head::maxLength>, 2> parts{};
    const std::size_t wanted = static_cast<std::size_t>(length);
    if (file.ReadAt(offset, parts[0].data(), wanted, error) != wanted) return false;
    if (other.ReadAt(offset, parts[1].data(), wanted, error) != wanted) return false;
    if (parts[0] != parts[1]) return false;
  }
  return true;
}

std::uint64_t FindLastLineStart(const OpenedFile& file, std::uint64_t size, std::size_t maxBytes,
                                std::error_code& error) {
  std::string block(static_cast<std::size_t>(std::min<std::uint64_t>(size, maxBytes)), '\0');
  const std::uint64_t offset = size - block.size();
  block.resize(file.ReadAt(offset, block.data(), block.size(), error));
  const std::size_t lineFeed = block.rfind('\n');
  if (lineFeed != std::string::npos) return offset + lineFeed + 1;
  return offset == 0 ? 0 : size;
}

bool IsCompressed(std::string_view start) {
  using namespace std::string_view_literals;
  if (start.size() < 4) return false;
  return start.starts_with("\x1F\x8B\x08"sv) ||
         (start.starts_with("BZh"sv) && start.substr(4).starts_with("1AY&SY"sv)) ||
         start.starts_with(
             "\xFD"
             "7zXZ\0"sv) ||
         start.starts_with("\x28\xB5\x2F\xFD"sv) || start.starts_with("PK\x03\x04"sv);
}

}  // namespace sorvex::collect
