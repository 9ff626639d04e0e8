#include <host/SystemError.h>

#include <cstring>

namespace WindowsAgentCommon {

std::string GetLastErrorText(int error) {
  // Unlike strerror it is the same in every locale, needs no buffer, and recognises unknown numbers.
  const char* text = ::strerrordesc_np(error);
  return text ? text : "error " + std::to_string(error);
}

}  // namespace WindowsAgentCommon
