#include <FileContent.h>

#include <host/Text.h>

#include <cerrno>
#include <fstream>
#include <system_error>

namespace sorvex::agent {

std::string ReadFileContent(const std::filesystem::path& file, std::size_t maxBytes) {
  const std::string name = WindowsAgentCommon::WideToUtf8(WindowsAgentCommon::PathToWide(file));
  // Opening a pipe would wait for its writer.
  if (std::filesystem::exists(file) && !std::filesystem::is_regular_file(file)) {
    throw std::system_error(std::make_error_code(std::errc::invalid_argument), name);
  }
  errno = 0;
  std::ifstream stream(file, std::ios::binary);
  if (!stream) throw std::system_error(errno, std::generic_category(), name);
  std::string content(maxBytes + 1, '\0');
  stream.read(content.data(), static_cast<std::streamsize>(content.size()));
  if (stream.bad()) throw std::system_error(errno, std::generic_category(), name);
  content.resize(static_cast<std::size_t>(stream.gcount()));
  content.shrink_to_fit();
  return content;
}

}  // namespace sorvex::agent
