// The parameters of destination sockets that users may set.
#pragma once

#include <host/ParameterBlock.h>

namespace sorvex::settings {

/// Where parameters are written. Some have a place of their own there: an option, or an attribute.
enum class Place { CommandLine, Configuration };

/// `hasStream` tells that a destination is a TCP or TLS one; UDP sockets know fewer keys. Throws
/// `std::invalid_argument` when the block holds a key that no socket of the destinations' kinds knows (naming those
/// that are known), a value that its key does not take, a key twice, or one that has a place of its own.
void CheckSocketParameters(const WindowsAgentCommon::ParameterBlock& parameters, bool hasStream, Place place);

}  // namespace sorvex::settings
