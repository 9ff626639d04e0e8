// What the server needs from the operating system and the libraries do not offer.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace sorvex::configserver {

/// The program itself, called by the platform's entry point with the arguments after the program's name, in UTF-8.
int RunServer(std::vector<std::string> arguments);

/// The signals that ask the program to end.
std::vector<int> EndSignals();

/// Raises the limit on open connections to the system's maximum for this process.
void RaiseDescriptorLimit();

/// Whether a listening socket may take an address that still has old connections in the system, without taking it from
/// another program.
bool MayReuseAddress();

/// This machine's own name.
std::string GetHostName();

/// Whether an existing path has exactly these letters: a system that takes "A" for "a" may have found another one.
bool IsStoredAs(const std::filesystem::path& path);

}  // namespace sorvex::configserver
