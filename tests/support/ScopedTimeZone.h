// Sets the process's time zone for the duration of a test.
#pragma once

#include "ScopedVariable.h"

#include <ace/OS_NS_time.h>

#include <optional>
#include <string>

namespace sorvex::test {

class ScopedTimeZone {
 public:
  /// `zone` is a text that every system accepts in TZ, such as "IST-5:30": a name and what to add to local time to get
  /// UTC.
  explicit ScopedTimeZone(const std::string& zone) {
    m_variable.emplace("TZ", zone);
    ACE_OS::tzset();
  }
  ~ScopedTimeZone() {
    m_variable.reset();
    ACE_OS::tzset();
  }
  ScopedTimeZone(const ScopedTimeZone&) = delete;
  ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

 private:
  std::optional<ScopedVariable> m_variable;
};

}  // namespace sorvex::test
