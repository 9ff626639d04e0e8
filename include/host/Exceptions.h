// Exceptions of the host framework. Each names the source file, the function and the line that raised it.
#pragma once

#include <SorvexCommonExport.h>

#include <exception>
#include <string>

namespace WindowsAgentCommon {

/// Base of all. `what()` is "<message> (<function>, <file>:<line>)"; an empty message is left out.
class SORVEXCOMMON_EXPORT VaroException : public std::exception {
 public:
  VaroException(std::string file, std::string function, int line, std::string message = {});
  ~VaroException() override;

  const std::string& GetSourceFile() const noexcept;
  const std::string& GetFunction() const noexcept;
  int GetLine() const noexcept;
  const std::string& GetMessageText() const noexcept;
  const char* what() const noexcept override;

 private:
  std::string m_strFile;
  std::string m_strFunction;
  int m_line;
  std::string m_strMessage;
  std::string m_strWhat;
};

/// A socket delivered or accepted less than requested.
class SORVEXCOMMON_EXPORT SocketException : public VaroException {
 public:
  using VaroException::VaroException;
  ~SocketException() override;
};

/// An operation that the object does not offer was called.
class SORVEXCOMMON_EXPORT OperationNotSupportedException : public VaroException {
 public:
  using VaroException::VaroException;
  ~OperationNotSupportedException() override;
};

/// An object was given a configuration that it cannot use.
class SORVEXCOMMON_EXPORT InitializationException : public VaroException {
 public:
  using VaroException::VaroException;
  ~InitializationException() override;
};

}  // namespace WindowsAgentCommon
