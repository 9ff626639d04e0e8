// The parameters of destination sockets that the command line may set.
#pragma once

#include <Destination.h>

#include <host/ParameterBlock.h>

#include <vector>

namespace sorvex::agent {

/// Throws `std::invalid_argument` when the block holds a key that no socket of the destinations' kinds knows (naming
/// those that are known), a value that its key does not take, a key twice, or one that an option of its own sets.
void CheckSocketParameters(const WindowsAgentCommon::ParameterBlock& parameters,
                           const std::vector<Destination>& destinations);

}  // namespace sorvex::agent
