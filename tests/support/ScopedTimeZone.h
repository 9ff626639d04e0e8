// The process's time zone, set for the time of a test.
#pragma once

#include "ScopedVariable.h"

#include <ace/OS_NS_time.h>

#include <optional>
#include <string>

namespace sorvex::test {

class ScopedTimeZone {
 public:
  /// `zone` is a text that every system's TZ variable takes, such as "IST-5:30": a name and what is to be added to
  /// local time to give UTC.
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
