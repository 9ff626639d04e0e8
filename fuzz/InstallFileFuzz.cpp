// The install configuration file, up to the token, which cannot be decrypted because there is no key.
#include "FuzzFile.h"

#include "install/InstallConfigFileProcessor.h"

#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const sorvex::test::FuzzFile file;
  WindowsAgentCommon::ParameterBlock parameters;
  VaroCommunicationAPI::InstallConfigFileProcessor processor;
  const int error = processor.Process(file.Write(data, size), parameters);
  if ((error == 0) != processor.GetMessageText().empty()) std::abort();
  return 0;
}
