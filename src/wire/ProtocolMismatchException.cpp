#include "wire/ProtocolMismatchException.h"

#include <boost/regex.hpp>

#include <utility>

namespace SSLConfigServerProto {

ProtocolException::~ProtocolException() = default;

ProtocolMismatchException::ProtocolMismatchException(std::string file, std::string function, int line,
                                                     const std::string& message)
    : ProtocolException(std::move(file), std::move(function), line, message) {
  static const boost::regex versions(R"(cli:(\d+\.\d+) --> svr:(\d+\.\d+))");
  if (boost::smatch match; boost::regex_match(message, match, versions)) {
    m_strClientVersion = match[1];
    m_strServerVersion = match[2];
  }
}

ProtocolMismatchException::~ProtocolMismatchException() = default;

const std::string& ProtocolMismatchException::GetClientVersion() const noexcept { return m_strClientVersion; }

const std::string& ProtocolMismatchException::GetServerVersion() const noexcept { return m_strServerVersion; }

}  // namespace SSLConfigServerProto
