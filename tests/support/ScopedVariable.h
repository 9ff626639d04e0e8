// Sets an environment variable of the process for the duration of a test.
#pragma once

#include <ace/OS_NS_stdlib.h>

#include <list>
#include <optional>
#include <string>
#include <utility>

namespace sorvex::test {

/// Not while another thread reads the environment.
class ScopedVariable {
 public:
  /// Removes the variable when there is no `value`.
  ScopedVariable(std::string name, const std::optional<std::string>& value) : m_name(std::move(name)) {
    if (const char* const previous = ACE_OS::getenv(m_name.c_str())) m_previous = previous;
    Set(value);
  }
  ~ScopedVariable() { Set(m_previous); }
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;

 private:
  void Set(const std::optional<std::string>& value) const {
    // Some systems keep the text itself in the environment.
    static std::list<std::string> settings;
    // On Windows an empty value removes the variable; there is no other way.
    ACE_OS::putenv(settings.emplace_back(m_name + '=' + value.value_or("")).c_str());
    if (!value) ACE_OS::unsetenv(m_name.c_str());
  }

  const std::string m_name;
  std::optional<std::string> m_previous;
};

}  // namespace sorvex::test
