// The parameters of destination sockets that users may set.
#pragma once

#include <host/ParameterBlock.h>

namespace sorvex::settings {

/// Where parameters are written. Some have their own option or attribute there.
enum class Place { CommandLine, Configuration };

/// `hasStream` says that one destination is TCP or TLS; UDP sockets know fewer keys. Throws `std::invalid_argument`
/// when the block has a key that no socket of these kinds knows (listing the known ones), a value that its key does not
/// take, a duplicate key, or one with its own option or attribute.
void CheckSocketParameters(const WindowsAgentCommon::ParameterBlock& parameters, bool hasStream, Place place);

}  // namespace sorvex::settings
