// The range of TLS versions that a connection may negotiate.
#pragma once

#include <CommunicationAPI/CommunicationAPIExport.h>
#include <host/Log.h>

#include <cstdint>
#include <optional>
#include <string>

class ACE_SSL_Context;

namespace VaroCommunicationAPI {

/// A value: a minimum and a maximum version, TLS 1.0 to TLS 1.2 when new. No locks; each owner has its copy.
class COMMUNICATIONAPI_EXPORT SSLProtocolList {
 public:
  /// In ascending order: the numbers are compared and counted through.
  enum Protocol : std::int32_t { TLSv1 = 0, TLSv1_1 = 1, TLSv1_2 = 2 };

  SSLProtocolList();
  SSLProtocolList(const SSLProtocolList& other);
  SSLProtocolList& operator=(const SSLProtocolList& other);

  /// Sets the range from two texts, "TLSv1", "TLSv1.1" or "TLSv1.2" in any case, blanks around them ignored. Returns
  /// false and leaves the range as it was when a text is empty or unknown or the minimum is above the maximum; one or
  /// two messages at Error level then go to `log`. Never throws for what the texts contain.
  bool setRange(const std::string& min, const std::string& max, WindowsAgentCommon::Log log);

  /// Makes the context negotiate the versions of the range and no other: never SSL 2, SSL 3 or TLS 1.3. A range that
  /// reaches below TLS 1.2 sets security level 0 on this context, without which a current library refuses the
  /// signatures of those versions. Options set for other purposes stay. Cannot fail.
  void applyTo(ACE_SSL_Context& context) const;

 private:
  std::optional<Protocol> parse(const std::string& text) const;

  Protocol m_min;
  Protocol m_max;
};

}  // namespace VaroCommunicationAPI
