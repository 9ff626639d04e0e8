// The process's time zone, set for the time of a test.
#pragma once

#include <ace/OS_NS_stdlib.h>
#include <ace/OS_NS_time.h>

#include <list>
#include <optional>
#include <string>

namespace sorvex::test {

class ScopedTimeZone {
 public:
  /// `zone` is a text that every system's TZ variable takes, such as "IST-5:30": a name and what is to be added to
  /// local time to give UTC.
  explicit ScopedTimeZone(const std::string& zone) {
    if (const char* const previous = ACE_OS::getenv("TZ")) m_previous = previous;
    Set(zone);
  }
  ~ScopedTimeZone() {
    // An empty value removes the variable on Windows, which knows no other way.
    Set(m_previous.value_or(""));
    if (!m_previous) ACE_OS::unsetenv("TZ");
    ACE_OS::tzset();
  }
  ScopedTimeZone(const ScopedTimeZone&) = delete;
  ScopedTimeZone& operator=(const ScopedTimeZone&) = delete;

 private:
  static void Set(const std::string& zone) {
    // The environment of some systems keeps the text itself.
    static std::list<std::string> settings;
    ACE_OS::putenv(settings.emplace_back("TZ=" + zone).c_str());
    ACE_OS::tzset();
  }

  std::optional<std::string> m_previous;
};

}  // namespace sorvex::test
