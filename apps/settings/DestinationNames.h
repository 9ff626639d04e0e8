// The kinds of destinations and of framings, by the names that users have for them on the command line and in
// AgentConfig.xml alike.
#pragma once

#include <array>
#include <string_view>
#include <utility>

namespace sorvex::settings {

enum class DestinationType { Tcp, Tls, Udp };

inline constexpr std::array<std::pair<std::string_view, DestinationType>, 3> destinationTypes{
    {{"tcp", DestinationType::Tcp}, {"tls", DestinationType::Tls}, {"udp", DestinationType::Udp}}};

/// With what the socket's parameter "Framing" takes for each. The first is the default.
inline constexpr std::array<std::pair<std::string_view, std::string_view>, 2> framings{
    {{"LineFeed", "LineFeed"}, {"OctetCounting", "OctetCounting"}}};

/// Whether a payload without a byte has any on the wire. `appendsLineFeed` is the parameter "AppendLineFeed".
constexpr bool FramesEmptyPayloads(std::string_view framing, bool appendsLineFeed) {
  return framing == "LineFeed" && appendsLineFeed;
}

}  // namespace sorvex::settings
