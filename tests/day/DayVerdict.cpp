// The verdict of script/day on one destination.
//
//   day_verdict DIARY DESTINATION FOLDER
//
// `FOLDER` holds a folder for each receiver, named by its number, with a file `entries`; Ledger.h describes both
// formats. Prints a report. Exits with 1 on a violation, above all a line that did not arrive.
#include "Ledger.h"

#include <cstdio>
#include <exception>
#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>

namespace {

using sorvex::day::Report;

Report Judge(const std::filesystem::path& diaryFile, const std::string& destination,
             const std::filesystem::path& folder) {
  std::ifstream diary(diaryFile);
  if (!diary) throw std::runtime_error("there is no diary " + diaryFile.string());
  sorvex::day::Ledger ledger(sorvex::day::Diary::Read(diary, destination));
  std::set<int> receivers;
  for (const auto& entry : std::filesystem::directory_iterator(folder)) {
    receivers.insert(std::stoi(entry.path().filename().string()));
  }
  for (const int receiver : receivers) {
    std::ifstream entries(folder / std::to_string(receiver) / "entries");
    ledger.Add(receiver, entries);
  }
  return ledger.Judge();
}

unsigned long long Long(std::uint64_t number) { return number; }

void Print(const std::string& destination, const Report& report) {
  std::printf("%s: %llu lines written, %llu arrived, %llu of them after their successors\n", destination.c_str(),
              Long(report.written), Long(report.arrived), Long(report.late));
  std::printf("%s: lost with receivers that were killed: %llu lines, %llu bytes of the %llu that the system had\n",
              destination.c_str(), Long(report.lost), Long(report.lostBytes), Long(report.heldBytes));
  std::printf("%s: twice after the agent was killed: %llu; after it had ended with lines undelivered: %llu\n",
              destination.c_str(), Long(report.twiceAfterKill), Long(report.twiceAfterStop));
  for (const std::string& fault : report.faults) std::printf("%s: FAULT: %s\n", destination.c_str(), fault.c_str());
}

}  // namespace

int main(int argc, char** argv) {
  try {
    if (argc != 4) throw std::runtime_error("usage: day_verdict DIARY DESTINATION FOLDER");
    const Report report = Judge(argv[1], argv[2], argv[3]);
    Print(argv[2], report);
    return report.faults.empty() ? 0 : 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "day_verdict: %s\n", error.what());
    return 2;
  }
}
