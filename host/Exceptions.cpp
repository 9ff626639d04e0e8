#include <host/Exceptions.h>

#include <utility>

namespace WindowsAgentCommon {

VaroException::VaroException(std::string file, std::string function, int line, std::string message)
    : m_strFile(std::move(file)), m_strFunction(std::move(function)), m_line(line), m_strMessage(std::move(message)) {
  if (!m_strMessage.empty()) m_strWhat = m_strMessage + ' ';
  m_strWhat += '(' + m_strFunction + ", " + m_strFile + ':' + std::to_string(m_line) + ')';
}

VaroException::~VaroException() = default;

const std::string& VaroException::GetSourceFile() const noexcept { return m_strFile; }

const std::string& VaroException::GetFunction() const noexcept { return m_strFunction; }

int VaroException::GetLine() const noexcept { return m_line; }

const std::string& VaroException::GetMessageText() const noexcept { return m_strMessage; }

const char* VaroException::what() const noexcept { return m_strWhat.c_str(); }

SocketException::~SocketException() = default;

OperationNotSupportedException::~OperationNotSupportedException() = default;

InitializationException::~InitializationException() = default;

}  // namespace WindowsAgentCommon
