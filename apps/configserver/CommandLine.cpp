#include <CommandLine.h>

#include <Exchange.h>
#include <Text.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <iostream>

namespace sorvex::configserver {
std::optional<Options> ParseCommandLine(std::vector<std::string> arguments, int& status) {
  Options options;
  std::string data;
  std::string certificate;
  std::string key;
  std::string wireVersion = "2.0";
  std::uint32_t idleSeconds = 60;
  std::uint32_t requestSeconds = 30;
  std::string fault;
  Exchange faultExchange{};
  std::uint32_t faultTimes = 0;

  CLI::App app("A reference configuration server: serves agents from one folder.", "sorvex-configserver");
  // A file may be called /help; options begin with hyphens on every platform.
  app.allow_windows_style_options(false);
  app.add_option("--data", data, "Folder of tokens, configurations, agents and patches")->required()->type_name("DIR");
  app.add_option("--wire-port", options.wirePort,
                 "Port of the wire protocol (default: 8413 when there is no --https-port; 0: any free one)");
  app.add_option("--https-port", options.httpsPort, "Port of the commands over HTTPS (0: any free one)");
  app.add_option("--listen", options.listen, "Address to listen on (default: 0.0.0.0; :: for IPv6 and IPv4)")
      ->type_name("ADDRESS");
  CLI::Option* const certificateOption =
      app.add_option("--certificate", certificate,
                     "Certificate in PEM, followed by its issuers (default: certificate.pem in the folder)")
          ->type_name("FILE");
  CLI::Option* const keyOption = app.add_option("--key", key, "Its key in PEM")->type_name("FILE");
  certificateOption->needs(keyOption);
  keyOption->needs(certificateOption);
  app.add_option("--wire-version", wireVersion, "Highest version to speak: 2.0 (default) or 1.0")
      ->check(CLI::IsMember({"1.0", "2.0"}));
  app.add_option("--max-agents", options.maxAgents,
                 "Agents connected at once; others are told to try later (default: no limit)");
  app.add_option("--max-connections", options.maxConnections,
                 "Connections of both protocols at once; others are closed (default: 10000)");
  app.add_option("--idle-timeout", idleSeconds, "How long a connection may be silent (default: 60)")
      ->type_name("SECONDS")
      ->check(CLI::PositiveNumber);
  app.add_option("--request-timeout", requestSeconds, "How long a handshake or a request may take (default: 30)")
      ->type_name("SECONDS")
      ->check(CLI::PositiveNumber);
  CLI::Option* const faultOption =
      app.add_option("--fault", fault, "Misbehave, to test agents: " + Fault::Kinds())->type_name("KIND[:N]");
  CLI::Option* const onOption =
      app.add_option("--fault-on", faultExchange,
                     "Only in this exchange: connect, register, heartbeat, status, fingerprint, configuration or patch")
          ->transform(CLI::CheckedTransformer(
              std::vector<std::pair<std::string, Exchange>>(exchangeNames.begin(), exchangeNames.end())))
          ->type_name("EXCHANGE")
          ->needs(faultOption);
  CLI::Option* const timesOption =
      app.add_option("--fault-times", faultTimes, "Only the first N times")->type_name("N")->needs(faultOption);

  try {
    // CLI11 takes the arguments in reverse.
    std::reverse(arguments.begin(), arguments.end());
    app.parse(std::move(arguments));
    if (faultOption->count() > 0) {
      const std::optional<Fault> parsed = Fault::Parse(fault);
      if (!parsed)
        throw CLI::ValidationError("--fault", "'" + fault + "' is not KIND[:N] with one of " + Fault::Kinds());
      options.fault = *parsed;
      if (onOption->count() > 0) options.fault.LimitTo(faultExchange);
      if (timesOption->count() > 0) options.fault.LimitTimes(faultTimes);
    }
  } catch (const CLI::ParseError& error) {
    // CLI11's own exit codes do not matter here: everything except a request for help is wrong usage.
    status = app.exit(error, std::cout, std::cerr) == 0 ? 0 : 2;
    return std::nullopt;
  }
  if (!options.wirePort && !options.httpsPort) options.wirePort = 8413;
  options.data = Utf8ToPath(data);
  options.certificate = Utf8ToPath(certificate);
  options.key = Utf8ToPath(key);
  if (wireVersion == "1.0") options.wireVersion = WireVersion::V1;
  options.idleTimeout = std::chrono::seconds(idleSeconds);
  options.requestTimeout = std::chrono::seconds(requestSeconds);
  return options;
}

}  // namespace sorvex::configserver
