#include <settings/TlsRange.h>

#include <host/Log.h>

#include <memory>
#include <stdexcept>

namespace sorvex::settings {
namespace {

using namespace WindowsAgentCommon;

/// Stores what is wrong with a range.
class ReasonSink : public ILogSink {
 public:
  bool IsEnabled(LogLevel) const override { return true; }
  void Write(LogLevel, const std::string&, const std::string& message) override {
    m_strReason += (m_strReason.empty() ? "" : " ") + message;
  }
  const std::string& Reason() const { return m_strReason; }

 private:
  std::string m_strReason;
};

}  // namespace

VaroCommunicationAPI::SSLProtocolList MakeTlsRange(const std::string& minVersion, const std::string& maxVersion) {
  VaroCommunicationAPI::SSLProtocolList range;
  const auto sink = std::make_shared<ReasonSink>();
  if (!range.setRange(minVersion, maxVersion, Log("", sink))) throw std::invalid_argument(sink->Reason());
  return range;
}

}  // namespace sorvex::settings
