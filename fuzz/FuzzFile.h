// A file that is rewritten for every input of a parser that reads files.
#pragma once

#include "support/TemporaryDirectory.h"

#include <SorvexHost/Directories.h>
#include <host/LoggerFactory.h>

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace sorvex::test {

/// Its directory is also the configuration directory, and nothing is logged.
class FuzzFile {
 public:
  FuzzFile() {
    WindowsAgentCommon::LoggerFactory::SetSink(nullptr);
    WindowsAgentCommon::SetConfigPath(m_directory.Wide());
  }

  std::wstring Write(const std::uint8_t* data, std::size_t size) const {
    return WindowsAgentCommon::PathToWide(
        m_directory.Write("input", std::string_view(reinterpret_cast<const char*>(data), size)));
  }

 private:
  TemporaryDirectory m_directory{"fuzz"};
};

}  // namespace sorvex::test
