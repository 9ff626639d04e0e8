// What the server needs of the operating system and the libraries do not offer.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace sorvex::configserver {

/// The program itself, called by the platform's entry point with the arguments after the program's name, in UTF-8.
int RunServer(std::vector<std::string> arguments);

/// The signals that ask the program to end.
std::vector<int> EndSignals();

/// Allows as many open connections as the system lets this process have.
void RaiseDescriptorLimit();

/// Whether a listening socket may take an address whose last connections the system still remembers, without taking it
/// from another program.
bool MayReuseAddress();

/// This machine's own name.
std::string GetHostName();

/// Whether a path, if there is something, is there by exactly these letters: a system that takes "A" for "a" may have
/// found another.
bool IsStoredAs(const std::filesystem::path& path);

}  // namespace sorvex::configserver
