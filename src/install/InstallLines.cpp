#include "install/InstallLines.h"

#include <boost/algorithm/string/classification.hpp>
#include <boost/algorithm/string/trim.hpp>

namespace VaroCommunicationAPI {

void AddInstallLines(std::string_view text, std::string_view prefix, WindowsAgentCommon::ParameterBlock& parameters) {
  while (!text.empty()) {
    const std::size_t end = text.find('\n');
    const std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);

    const std::size_t equals = line.find('=');
    if (equals == std::string_view::npos || !line.starts_with(prefix)) continue;
    // The value may be the application token: no temporary string may hold it.
    parameters.emplace(boost::algorithm::trim_copy(line.substr(0, equals)),
                       boost::algorithm::trim_copy_if(line.substr(equals + 1), boost::algorithm::is_any_of("\r\n")));
  }
}

}  // namespace VaroCommunicationAPI
