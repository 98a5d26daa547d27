#include "tests/calls/support/Sipp.h"

#include <array>
#include <cstdio>
#include <iterator>
#include <regex>

#include "tests/calls/support/ScratchDirectory.h"

namespace {

const std::filesystem::path kScenarios = QUORVEL_SIPP_SCENARIOS;

// `text` with what `replacement` gives for each match of `pattern`.
template <typename Replacement>
std::string replacedEach(std::string text, const std::regex& pattern, Replacement replacement) {
  std::string result;
  for (std::smatch found; std::regex_search(text, found, pattern);) {
    result += found.prefix().str() + replacement(found);
    text = found.suffix().str();
  }
  return result + text;
}

// A scenario with its parts ({{>name}}) put in; parts may use parts.
std::string assembled(const std::filesystem::path& file) {
  static const std::regex part(R"(\{\{>(\w+)\}\}\n?)");
  return replacedEach(readFile(file), part, [](const std::smatch& found) {
    return assembled(kScenarios / "parts" / (found[1].str() + ".xml"));
  });
}

std::string filled(const std::string& text, const Places& places) {
  static const std::regex place(R"(\{\{(\w+)\|([^}]*)\}\})");
  return replacedEach(text, place, [&](const std::smatch& found) {
    const auto value = places.find(found[1].str());
    return value != places.end() ? value->second : found[2].str();
  });
}

// Looks the port up rather than binding it, which would take it away from SIPp for a moment.
bool portIsTaken(int port) {
  std::array<char, 8> text{};
  std::snprintf(text.data(), text.size(), ":%04X ", static_cast<unsigned>(port) & 0xFFFF);
  return readFile("/proc/net/udp").find(text.data()) != std::string::npos;
}

std::string escaped(std::string text) {
  for (const auto& [character, name] :
       {std::pair{"&", "&amp;"}, {"<", "&lt;"}, {">", "&gt;"}, {"\"", "&quot;"}})
    text = std::regex_replace(text, std::regex(character), name);
  return text;
}

std::string check(const std::string& header, const std::string& expression, const std::string& kind) {
  const std::string where =
      header.empty() ? "search_in=\"msg\"" : "search_in=\"hdr\" header=\"" + header + "\"";
  return "<ereg regexp=\"" + escaped(expression) + "\" " + where + " " + kind +
         "=\"true\" assign_to=\"checked\"/>\n";
}

}  // namespace

std::string must(const std::string& header, const std::string& expression) {
  return check(header, expression, "check_it");
}

std::string mustNot(const std::string& header, const std::string& expression) {
  return check(header, expression, "check_it_inverse");
}

Sipp::Sipp(const std::filesystem::path& directory, const SippRun& run)
    : sipPort(run.port),
      errorFile(directory / (run.scenario + "-" + std::to_string(run.port) + ".errors")),
      messageFile(directory / (run.scenario + "-" + std::to_string(run.port) + ".messages")) {
  const std::string name = run.scenario + "-" + std::to_string(run.port);
  const std::filesystem::path scenario = directory / (name + ".xml");
  writeFile(scenario, filled(assembled(kScenarios / (run.scenario + ".xml")), run.places));
  // One call, within half a minute, with what went wrong and what was said in files.
  std::istringstream words(
      "-m 1 -l 1 -nostdin -timeout 30 -timeout_error -max_retrans 3 -trace_err -trace_msg "
      "-i 127.0.0.1 -mi 127.0.0.1 -sf " +
      scenario.string() + " -error_file " + errorFile.string() + " -message_file " + messageFile.string() +
      " -p " + std::to_string(run.port) + " -mp " + std::to_string(run.mediaPort));
  std::vector<std::string> arguments{std::istream_iterator<std::string>(words), {}};
  if (run.target != 0) arguments.push_back("127.0.0.1:" + std::to_string(run.target));
  program = std::make_unique<Process>("sipp", arguments, directory / (name + ".output"),
                                      Process::Environment{{"TERM", "dumb"}});
}

bool Sipp::ready(Seconds limit) const {
  return eventually([this] { return portIsTaken(sipPort); }, limit);
}

bool Sipp::succeeded(Seconds limit) {
  return program->wait(limit) == 0;
}

std::string Sipp::report() const {
  return "SIPp's errors:\n" + readFile(errorFile) + "\nmessages:\n" + readFile(messageFile);
}
