#include <CommandLine.h>

#include <Certificate.h>
#include <platform/Platform.h>
#include <platform/Service.h>

#include <settings/SocketParameters.h>
#include <settings/TlsRange.h>

#include <SorvexHost/LogSinks.h>
#include <host/Text.h>
#include <host/VersionText.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <charconv>
#include <iostream>
#include <limits>
#include <memory>
#include <stdexcept>
#include <system_error>

namespace sorvex::agent {
namespace {

using namespace WindowsAgentCommon;

ParameterBlock ParsePairs(const std::string& option, const std::vector<std::string>& pairs) {
  ParameterBlock parameters;
  for (const std::string& pair : pairs) {
    const std::size_t separator = pair.find('=');
    if (separator == 0 || separator == std::string::npos) {
      throw CLI::ValidationError(option, "'" + pair + "' is not KEY=VALUE");
    }
    parameters.emplace(pair.substr(0, separator), pair.substr(separator + 1));
  }
  return parameters;
}

std::vector<Destination> ParseDestinations(const std::vector<std::string>& targets) {
  std::vector<Destination> destinations;
  for (const std::string& target : targets) {
    try {
      destinations.push_back(ParseDestination(target));
    } catch (const std::invalid_argument& error) {
      throw CLI::ValidationError("--to", error.what());
    }
  }
  return destinations;
}

/// Reads a decimal number without blanks. Throws `CLI::ValidationError` when the text is not a number or is out of
/// bounds; `what` says what it should be.
template <class Number>
Number ParseNumber(const std::string& option, const std::string& text, const char* what,
                   Number lowest = std::numeric_limits<Number>::lowest(),
                   Number highest = std::numeric_limits<Number>::max()) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  // NaN is neither within the bounds nor outside of them.
  const bool isWithin = number >= lowest && number <= highest;
  if (error != std::errc() || end != text.data() + text.size() || !isWithin) {
    throw CLI::ValidationError(option, "'" + text + "' is not " + what);
  }
  return number;
}

struct TlsOptions {
  std::string certificateFile;
  std::string minVersion = "TLSv1";
  std::string maxVersion = "TLSv1.2";
};

void ApplyTlsOptions(const TlsOptions& tls, const CLI::App& forward, ForwardCommand& command) {
  const bool wanted = std::ranges::any_of(
      command.destinations, [](const Destination& destination) { return destination.scheme == Scheme::Tls; });
  for (const char* const option : {"--certificate", "--min-tls", "--max-tls"}) {
    if (!wanted && forward.count(option) > 0) throw CLI::ValidationError(option, "no destination is a tls:// one");
  }
  try {
    command.tlsVersions = settings::MakeTlsRange(tls.minVersion, tls.maxVersion);
  } catch (const std::invalid_argument& error) {
    throw CLI::ValidationError("--min-tls, --max-tls", error.what());
  }
  if (!wanted) return;
  if (tls.certificateFile.empty()) throw CLI::ValidationError("--certificate", "a tls:// destination needs one");
  try {
    command.certificate = ReadCertificate(ArgumentToPath(tls.certificateFile));
  } catch (const std::system_error& error) {
    throw CLI::ValidationError("--certificate", error.what());
  } catch (const std::invalid_argument& error) {
    throw CLI::ValidationError("--certificate", error.what());
  }
}

void ApplySocketParameters(const std::vector<std::string>& pairs, ForwardCommand& command) {
  const std::string option = "--set";
  command.parameters = ParsePairs(option, pairs);
  try {
    const bool hasStream = std::ranges::any_of(
        command.destinations, [](const Destination& destination) { return destination.scheme != Scheme::Udp; });
    settings::CheckSocketParameters(command.parameters, hasStream, settings::Place::CommandLine);
  } catch (const std::invalid_argument& error) {
    throw CLI::ValidationError(option, error.what());
  }
}

/// In an explicit configuration directory, or where the system keeps state.
std::filesystem::path GetStateDirectory(const Options& options) {
  if (!options.stateDirectory.empty()) return ArgumentToPath(options.stateDirectory);
  if (!options.configDirectory.empty()) return ArgumentToPath(options.configDirectory) / "state";
  return GetDefaultStateDirectory();
}

/// The options of a running agent, for each command that starts one.
struct LoopArguments {
  std::string interval = "300";
  std::string osVersion;
  std::string agentVersion = SORVEX_AGENT_VERSION;

  void AddTo(CLI::App& command) {
    command.add_option("--interval", interval, "Time between two rounds with the server (default: 300)")
        ->type_name("SECONDS");
    command.add_option("--os-version", osVersion, "Version of the system that is registered (default: its own)");
    command.add_option("--agent-version", agentVersion, "Version of the agent that is registered (default: its own)");
  }

  RunLoopOptions Read(const Options& options) const {
    RunLoopOptions loop;
    loop.interval = std::chrono::seconds(
        ParseNumber<std::int64_t>("--interval", interval, "a number of seconds from 1 to 86400", 1, 86400));
    loop.osVersion = osVersion.empty() ? GetOperatingSystemVersion() : osVersion;
    loop.agentVersion = agentVersion;
    loop.stateDirectory = GetStateDirectory(options);
    return loop;
  }
};

/// The arguments for the service: the given ones, with paths that are valid wherever it is started.
std::vector<std::string> MakeServiceArguments(const Options& options, const LoopArguments& loop,
                                              const std::vector<std::string>& parameters, const std::string& logLevel) {
  const auto absolute = [](const std::string& path) {
    return WideToUtf8(PathToWide(std::filesystem::absolute(ArgumentToPath(path))));
  };
  std::vector<std::string> arguments;
  const auto add = [&arguments](const char* option, const std::string& value) {
    if (!value.empty()) arguments.insert(arguments.end(), {option, value});
  };
  const auto addPath = [&](const char* option, const std::string& path) {
    add(option, path.empty() ? path : absolute(path));
  };
  addPath("--config-dir", options.configDirectory);
  addPath("--patch-dir", options.patchDirectory);
  addPath("--state-dir", options.stateDirectory);
  addPath("--module", options.module);
  for (const std::string& parameter : parameters) add("--parameter", parameter);
  add("--log-level", logLevel);
  // A service has no standard error.
  add("--log-file", options.logFile.empty()
                        ? WideToUtf8(PathToWide(std::filesystem::absolute(GetStateDirectory(options)) / "agent.log"))
                        : absolute(options.logFile));
  arguments.insert(arguments.end(), {"service", "run", "--interval", loop.interval});
  add("--os-version", loop.osVersion);
  add("--agent-version", loop.agentVersion);
  return arguments;
}

/// An option that may be repeated and takes one value each time.
CLI::Option* AddRepeated(CLI::App& app, const std::string& name, std::vector<std::string>& values,
                         const std::string& description) {
  return app.add_option(name, values, description)->allow_extra_args(false);
}

}  // namespace

std::optional<Options> ParseCommandLine(std::vector<std::string> arguments, int& status) {
  Options options;
  std::vector<std::string> parameters;
  std::string logLevel = "warn";

  CLI::App app("Loads the network module and runs one command with it.", "sorvex-agent");
  // A file may be called /help; options begin with hyphens on every platform.
  app.allow_windows_style_options(false);
  app.fallthrough();
  app.set_version_flag("--version", "sorvex-agent " SORVEX_AGENT_VERSION, "Print the version of the agent");
  // At most one; a missing one is checked below, so that an unknown one is named.
  app.require_subcommand(0, 1);
  app.add_option("--config-dir", options.configDirectory, "Configuration directory")->type_name("DIR");
  app.add_option("--patch-dir", options.patchDirectory, "Directory of waiting patches")->type_name("DIR");
  app.add_option("--state-dir", options.stateDirectory, "Directory of positions, lock and status of a running agent")
      ->type_name("DIR");
  app.add_option("--module", options.module, "Module to load (default: the one beside the program)")->type_name("FILE");
  AddRepeated(app, "--parameter", parameters, "Host parameter for the module's Initialize")->type_name("KEY=VALUE");
  CLI::Option* const logLevelOption =
      app.add_option("--log-level", logLevel, "debug, info, warn or error (default: warn; of run: info)")
          ->type_name("LEVEL");
  app.add_option("--log-file", options.logFile, "Append the log to a file instead of standard error")
      ->type_name("FILE");

  CLI::App* const info = app.add_subcommand("info", "Print version and mode of the module");
  ParameterCommand parameterCommand;
  CLI::App* const parameter = app.add_subcommand("parameter", "Print parameters of the installation");
  parameter->add_option("NAME", parameterCommand.names, "Names of parameters")->required();

  CLI::App* const fingerprint = app.add_subcommand("fingerprint", "Ask which configuration the agent should have");
  CLI::App* const heartbeat = app.add_subcommand("heartbeat", "Post a heartbeat");
  CLI::App* const test = app.add_subcommand("test-connection", "Check whether the configuration server answers");
  RegisterCommand registerCommand;
  CLI::App* const registration = app.add_subcommand("register", "Register this agent with the configuration server");
  registration->add_option("--os-version", registerCommand.osVersion, "Version of the system")->required();
  registration->add_option("--agent-version", registerCommand.agentVersion, "Version of the agent")->required();
  std::string updateStatus;
  std::string updateTime;
  CLI::App* const update = app.add_subcommand("update-status", "Report the agent's status");
  update->add_option("--status", updateStatus, "Number of the status")->required();
  update->add_option("--time", updateTime, "Time of the status, seconds since 1970")->required();

  ForwardCommand forwardCommand;
  std::vector<std::string> targets;
  TlsOptions tls;
  std::vector<std::string> socketParameters;
  std::string giveUpAfter;
  CLI::App* const forward = app.add_subcommand("forward", "Send each line of files or of standard input as an event");
  AddRepeated(*forward, "--to", targets, "Destination, SCHEME being tcp, tls or udp; may be repeated")
      ->required()
      ->type_name("SCHEME://HOST:PORT");
  forward->add_option("--certificate", tls.certificateFile, "Certificate for tls destinations, in PEM or DER")
      ->type_name("FILE");
  forward->add_option("--min-tls", tls.minVersion, "Lowest version of TLS: TLSv1 (default), TLSv1.1 or TLSv1.2")
      ->type_name("VERSION");
  forward->add_option("--max-tls", tls.maxVersion, "Highest version of TLS (default: TLSv1.2)")->type_name("VERSION");
  forward->add_flag("--queued", forwardCommand.queued, "Send through the queue instead of waiting for each event");
  forward->add_option("--builder", forwardCommand.builder, "Payload builder (default: SyslogPayloadBuilder)");
  std::string framing;
  std::vector<std::string> framingNames;
  for (const auto& [name, value] : settings::framings) framingNames.emplace_back(name);
  forward
      ->add_option("--framing", framing,
                   "What separates payloads over TCP and TLS: LineFeed (default) or OctetCounting (RFC 6587)")
      ->check(CLI::IsMember(framingNames))
      ->type_name("NAME");
  AddRepeated(*forward, "--set", socketParameters, "Further parameter of the socket")->type_name("KEY=VALUE");
  CLI::Option* const giveUp =
      forward->add_option("--give-up-after", giveUpAfter, "Give up a destination that can send nothing for so long")
          ->type_name("SECONDS");
  forward->add_option("FILE", forwardCommand.files, "Files to read; - or none: standard input");

  FetchConfigurationCommand fetchConfigurationCommand;
  CLI::App* const fetchConfiguration = app.add_subcommand("fetch-configuration", "Fetch the agent's configuration");
  fetchConfiguration->add_option("--out", fetchConfigurationCommand.file, "File to write")
      ->required()
      ->type_name("FILE");
  FetchPatchCommand fetchPatchCommand;
  CLI::App* const fetchPatch = app.add_subcommand("fetch-patch", "Fetch the first patch that the server has");
  fetchPatch->add_option("--out", fetchPatchCommand.file, "File to write")->required()->type_name("FILE");
  fetchPatch->add_option("NAME", fetchPatchCommand.names, "Names of components")->required();
  ServerKeyCommand serverKeyCommand;
  CLI::App* const serverKey = app.add_subcommand("server-key", "Fetch the server's public key");
  serverKey->add_option("--out", serverKeyCommand.file, "File to write")->required()->type_name("FILE");
  for (CLI::App* const command :
       {fingerprint, heartbeat, test, registration, update, fetchConfiguration, fetchPatch, serverKey}) {
    command->add_option("--repeat", options.repeat, "Run it N times with one connection object (default: 1)")
        ->type_name("N")
        ->check(CLI::PositiveNumber);
  }

  CLI::App* const key = app.add_subcommand("key", "The agent's key pair in the machine's key container");
  key->require_subcommand(1);
  KeyCreateCommand keyCreateCommand;
  CLI::App* const keyCreate = key->add_subcommand("create", "Make a key pair");
  keyCreate->add_option("--container", keyCreateCommand.container, "Key container (default: the one without a name)")
      ->type_name("NAME");
  keyCreate->add_flag("--force", keyCreateCommand.force, "Replace the key pair that is there");
  KeyShowCommand keyShowCommand;
  CLI::App* const keyShow = key->add_subcommand("show", "Print the public key");
  keyShow->add_option("--container", keyShowCommand.container, "Key container (default: the one without a name)")
      ->type_name("NAME");
  CLI::App* const token = app.add_subcommand("token", "The agent's token");
  token->require_subcommand(1);
  TokenProtectCommand tokenProtectCommand;
  CLI::App* const tokenProtect =
      token->add_subcommand("protect", "Print the secured form of the token for install_config.txt");
  tokenProtect->add_option("TOKEN", tokenProtectCommand.token, "The token; - reads it from standard input")->required();

  LoopArguments loopArguments;
  CLI::App* const run = app.add_subcommand("run", "Run the agent until it is asked to end");
  loopArguments.AddTo(*run);
  CLI::App* const agentStatus = app.add_subcommand("status", "Show the state of the running agent");
  CLI::App* serviceInstall = nullptr;
  CLI::App* serviceRemove = nullptr;
  CLI::App* serviceRun = nullptr;
  if (AreServicesSupported()) {
    CLI::App* const service = app.add_subcommand("service", "The agent as a service of the system");
    service->require_subcommand(1);
    serviceInstall = service->add_subcommand("install", "Install it with these options; it starts with the system");
    serviceRemove = service->add_subcommand("remove", "Stop and remove it");
    serviceRun = service->add_subcommand("run", "What the system starts");
    loopArguments.AddTo(*serviceInstall);
    loopArguments.AddTo(*serviceRun);
  }
  CheckConfigurationCommand checkConfigurationCommand;
  CLI::App* const checkConfiguration = app.add_subcommand("check-configuration", "Check a configuration");
  checkConfiguration->add_option("FILE", checkConfigurationCommand.file, "The AgentConfig.xml to check")->required();

  try {
    // CLI11 takes the arguments in reverse.
    std::reverse(arguments.begin(), arguments.end());
    app.parse(std::move(arguments));
    if (app.get_subcommands().empty()) throw CLI::RequiredError("A command");

    options.parameters = ParsePairs("--parameter", parameters);
    const auto isParsed = [](const CLI::App* command) { return command != nullptr && command->parsed(); };
    const bool isLoop = run->parsed() || isParsed(serviceRun) || isParsed(serviceInstall);
    // The agent's log level if none is given.
    if (isLoop && logLevelOption->count() == 0) logLevel = "info";
    if (!ParseLogLevel(logLevel, options.logLevel)) {
      throw CLI::ValidationError("--log-level", "'" + logLevel + "' is not debug, info, warn or error");
    }
    if (info->parsed()) options.command = InfoCommand{};
    if (parameter->parsed()) options.command = parameterCommand;
    if (fingerprint->parsed()) options.command = FingerprintCommand{};
    if (heartbeat->parsed()) options.command = HeartbeatCommand{};
    if (test->parsed()) options.command = TestConnectionCommand{};
    if (registration->parsed()) options.command = registerCommand;
    if (update->parsed()) {
      options.command = UpdateStatusCommand{
          ParseNumber<std::int32_t>("--status", updateStatus, "a decimal number from -2147483648 to 2147483647"),
          ParseNumber<std::int64_t>("--time", updateTime, "a decimal number of seconds")};
    }
    if (fetchConfiguration->parsed()) options.command = fetchConfigurationCommand;
    if (fetchPatch->parsed()) options.command = fetchPatchCommand;
    if (serverKey->parsed()) options.command = serverKeyCommand;
    if (keyCreate->parsed()) options.localCommand = keyCreateCommand;
    if (keyShow->parsed()) options.localCommand = keyShowCommand;
    if (tokenProtect->parsed()) options.localCommand = tokenProtectCommand;
    if (isLoop) {
      RunLoopOptions loop = loopArguments.Read(options);
      loop.isService = isParsed(serviceRun);
      options.command = loop;
    }
    if (isParsed(serviceInstall)) {
      options.localCommand = ServiceInstallCommand{MakeServiceArguments(options, loopArguments, parameters, logLevel),
                                                   GetStateDirectory(options)};
    }
    if (isParsed(serviceRemove)) options.localCommand = ServiceRemoveCommand{};
    if (agentStatus->parsed()) options.localCommand = StatusCommand{GetStateDirectory(options)};
    if (checkConfiguration->parsed()) options.localCommand = checkConfigurationCommand;
    if (forward->parsed()) {
      if (giveUp->count() > 0) {
        forwardCommand.giveUpAfter =
            ParseNumber<double>("--give-up-after", giveUpAfter, "a number of seconds from 0 to 1000000000", 0, 1e9);
      }
      if (forwardCommand.files.empty()) forwardCommand.files.emplace_back("-");
      forwardCommand.destinations = ParseDestinations(targets);
      ApplySocketParameters(socketParameters, forwardCommand);
      if (!framing.empty()) forwardCommand.parameters.emplace("Framing", framing);
      ApplyTlsOptions(tls, *forward, forwardCommand);
      options.command = forwardCommand;
    }
    return options;
  } catch (const CLI::ParseError& error) {
    // CLI11's own exit codes do not matter here: everything except a request for help is wrong usage.
    status = app.exit(error, std::cout, std::cerr) == 0 ? 0 : 2;
    return std::nullopt;
  }
}

}  // namespace sorvex::agent
