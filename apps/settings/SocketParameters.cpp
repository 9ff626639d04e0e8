#include <settings/SocketParameters.h>

#include <host/EnvironmentBlockHelper.h>

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace sorvex::settings {
namespace {

using namespace WindowsAgentCommon;

enum class Kind { Number, Boolean, Text };

struct SocketParameter {
  std::string_view key;
  Kind kind;
  bool isForUdp;                    ///< as well as for TCP and TLS
  std::string_view option = {};     ///< what sets it instead on the command line
  std::string_view attribute = {};  ///< and in a configuration

  std::string_view PlaceOfItsOwn(Place place) const { return place == Place::CommandLine ? option : attribute; }
};

constexpr SocketParameter socketParameters[] = {
    {"Socket.QueueLowWaterMark", Kind::Number, true},
    {"Socket.QueueHighWaterMark", Kind::Number, true},
    {"Socket.BlockingSendStrategy", Kind::Boolean, true, "--queued", "the agent, which always queues"},
    {"TargetAddress", Kind::Text, true, "--to", "the attribute Address"},
    {"TargetPort", Kind::Number, true, "--to", "the attribute Port"},
    {"Socket.KeepAlive.Enabled", Kind::Boolean, false},
    {"Socket.KeepAlive.Time", Kind::Number, false},
    {"Socket.KeepAlive.Interval", Kind::Number, false},
    {"MaxPayloadSize", Kind::Number, true},
    {"AppendLineFeed", Kind::Boolean, false},
    {"PayloadBuilderType", Kind::Text, true, "--builder", "the attribute Builder"},
    {"Certificate", Kind::Text, false, "--certificate", "the element Certificate"},
};

std::string Quote(std::string_view text) { return "'" + std::string(text) + "'"; }

/// As the socket will read it.
bool IsOfKind(const ParameterBlock& parameters, const std::string& key, Kind kind) {
  const EnvironmentBlockHelper helper(parameters);
  std::uint32_t number = 0;
  bool boolean = false;
  switch (kind) {
    case Kind::Number: return helper.GetUInt32Value(key, number, 0);
    case Kind::Boolean: return helper.GetBooleanValue(key, boolean, false);
    case Kind::Text: break;
  }
  return true;
}

const SocketParameter& Find(const std::string& key, bool hasStream, Place place) {
  const auto* const found = std::ranges::find(socketParameters, key, &SocketParameter::key);
  if (found != std::end(socketParameters) && !found->PlaceOfItsOwn(place).empty()) {
    throw std::invalid_argument(Quote(key) + " is set by " + std::string(found->PlaceOfItsOwn(place)));
  }
  if (found != std::end(socketParameters) && (found->isForUdp || hasStream)) return *found;
  std::string known;
  for (const SocketParameter& parameter : socketParameters) {
    if (!parameter.PlaceOfItsOwn(place).empty() || !(parameter.isForUdp || hasStream)) continue;
    known += (known.empty() ? "" : ", ") + std::string(parameter.key);
  }
  throw std::invalid_argument(Quote(key) + " is no parameter of these destinations; there are: " + known);
}

}  // namespace

void CheckSocketParameters(const ParameterBlock& parameters, bool hasStream, Place place) {
  for (const auto& [key, value] : parameters) {
    const SocketParameter& parameter = Find(key, hasStream, place);
    if (parameters.count(key) > 1) throw std::invalid_argument(Quote(key) + " is given more than once");
    if (IsOfKind(parameters, key, parameter.kind)) continue;
    throw std::invalid_argument(
        key + " is " + Quote(value) + "; it takes " +
        (parameter.kind == Kind::Number ? "a number from 0 to 4294967295" : "true, yes, on, 1, false, no, off or 0"));
  }
}

}  // namespace sorvex::settings
