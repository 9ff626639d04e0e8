#include <Certificate.h>

#include <Base64.h>
#include <platform/Platform.h>

#include <array>

namespace sorvex::agent {
std::string ReadCertificate(const std::filesystem::path& file) {
  InputFile input(file);
  std::string pem;
  std::array<char, 4096> block;
  while (const std::size_t count = input.Read(block.data(), block.size())) pem.append(block.data(), count);
  return EncodeBase64(pem);
}

}  // namespace sorvex::agent
