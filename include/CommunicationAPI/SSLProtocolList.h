// The range of TLS versions that a connection may negotiate.
#pragma once

#include <CommunicationAPI/CommunicationAPIExport.h>
#include <host/Log.h>

#include <cstdint>
#include <optional>
#include <string>

class ACE_SSL_Context;

namespace VaroCommunicationAPI {

/// A value: a minimum and a maximum version, by default TLS 1.0 to TLS 1.2. No locks; each owner has a copy.
class COMMUNICATIONAPI_EXPORT SSLProtocolList {
 public:
  /// In ascending order: the numbers are compared and iterated over.
  enum Protocol : std::int32_t { TLSv1 = 0, TLSv1_1 = 1, TLSv1_2 = 2 };

  SSLProtocolList();
  SSLProtocolList(const SSLProtocolList& other);
  SSLProtocolList& operator=(const SSLProtocolList& other);

  /// Sets the range from two texts, "TLSv1", "TLSv1.1" or "TLSv1.2" in any case, ignoring blanks around them. When a
  /// text is empty or unknown, or the minimum is above the maximum, returns false, keeps the range and logs one or two
  /// messages at Error level to `log`. Never throws because of the texts' content.
  bool setRange(const std::string& min, const std::string& max, WindowsAgentCommon::Log log);

  /// Makes the context negotiate only the versions of the range: never SSL 2, SSL 3 or TLS 1.3. A range that starts
  /// below TLS 1.2 sets security level 0 on this context, because a current library otherwise refuses the signatures of
  /// those versions. Options set for other purposes stay. Cannot fail.
  void applyTo(ACE_SSL_Context& context) const;

 private:
  std::optional<Protocol> parse(const std::string& text) const;

  Protocol m_min;
  Protocol m_max;
};

}  // namespace VaroCommunicationAPI
