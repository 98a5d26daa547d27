#include <optional>

#include "app/config/KeyValue.h"
#include "app/config/Log.h"
#include "app/config/MyConfiguration.h"
#include "app/config/Scan.h"

namespace {

constexpr const char* kAnalyzeCommand = "MyConfiguration::analyzeCommand";
constexpr int kFailure = 2;
constexpr unsigned kHighestProcessingType = 3;

// For "%.*s".
int lengthOf(std::string_view text) {
  return static_cast<int>(text.size());
}

// Nothing may stand between separator and number, not even a blank.
std::optional<int> integerAtOnce(std::string_view text) {
  if (scanWord(text).data() != text.data()) return std::nullopt;
  return scanInteger(text);
}

// One of the two keys that hold rules, with the tables that it fills.
struct sRuleKey {
  const char* pcKey;
  std::string_view text;
  int& iCount;
  std::array<RuleText, kMaxCommandRules>& psFilters;
  std::array<RuleText, kMaxCommandRules>& psDestinations;
  std::array<int, kMaxCommandRules>& piTypes;
};

// One rule, pattern "=" command, into the next row of the tables.
bool addRule(const sRuleKey& rules, std::string_view rule) {
  if (rules.iCount == kMaxCommandRules) {
    Log::error(kReadParams, "pc%s containes more than %d commands\n", rules.pcKey, kMaxCommandRules);
    return false;
  }
  const std::size_t equals = rule.find('=');
  if (equals == std::string_view::npos) {
    Log::error(kReadParams, "pc%s containes a command (%.*s) with no = sign\n", rules.pcKey, lengthOf(rule),
               rule.data());
    return false;
  }
  const auto row = static_cast<std::size_t>(rules.iCount);
  const std::string_view pattern = rule.substr(0, equals);
  if (!rules.psFilters[row].assign(pattern)) {
    Log::error(kReadParams, "In %s the pattern %.*s is longer than %zu characters\n", rules.pcKey,
               lengthOf(pattern), pattern.data(), RuleText::maxLength());
    return false;
  }
  const std::string_view command = rule.substr(equals + 1);
  if (myConfiguration.analyzeCommand(command, rules.psDestinations[row], rules.piTypes[row]) != 0) {
    Log::error(kReadParams, "In %s unable to analyze command %.*s\n", rules.pcKey, lengthOf(command),
               command.data());
    return false;
  }
  ++rules.iCount;
  return true;
}

// The text ends with a semicolon unless it is empty.
bool analyzeRules(const sRuleKey& rules) {
  rules.iCount = 0;
  std::string_view rest = rules.text;
  for (std::size_t end = rest.find(';'); end != std::string_view::npos; end = rest.find(';')) {
    if (!addRule(rules, rest.substr(0, end))) return false;
    rest.remove_prefix(end + 1);
  }
  return true;
}

bool analyzeDefaultCommand() {
  pcDefaultDestination.clear();
  iDefaultFilteringType = 0;
  if (pcDefaultCmd.empty()) return true;
  if (myConfiguration.analyzeCommand(pcDefaultCmd, pcDefaultDestination, iDefaultFilteringType) == 0)
    return true;
  Log::error(kReadParams, "unable to analyze default command %s\n", pcDefaultCmd.c_str());
  return false;
}

}  // namespace

int MyConfiguration::analyzeCommand(std::string_view command, RuleText& destination, int& type) {
  const std::size_t separator = command.find(pcSeparator.view());
  if (separator == std::string_view::npos) {
    Log::error(kAnalyzeCommand, "unable to find destination in %.*s\n", lengthOf(command), command.data());
    return kFailure;
  }
  if (!destination.assign(command.substr(0, separator))) {
    Log::error(kAnalyzeCommand, "destination too long %zu\n", separator);
    return kFailure;
  }
  const std::optional<int> number = integerAtOnce(command.substr(separator + pcSeparator.size()));
  if (!number) {
    Log::error(kAnalyzeCommand, "unable to read cleaning type from %.*s\n", lengthOf(command),
               command.data());
    return kFailure;
  }
  if (static_cast<unsigned>(*number) > kHighestProcessingType) {
    Log::error(kAnalyzeCommand, "invalid cleaning type (%d) read from %.*s\n", *number, lengthOf(command),
               command.data());
    return kFailure;
  }
  type = *number;
  return 0;
}

int MyConfiguration::analyzeCommandKey(std::string_view key) {
  const bool valid =
      key == kDefaultCommandKey ? analyzeDefaultCommand()
      : key == kCallerRulesKey
          ? analyzeRules({kCallerRulesKey, pcCmdBasedOnCallerID, iNumCmdBasedOnCallerID,
                          ppcCmdBasedOnCallerIDFilter, ppcCmdBasedOnCallerIDDestination,
                          piCmdBasedOnCallerIDFilteringType})
          : analyzeRules({kDestinationRulesKey, pcCmdBasedOnDestination, iNumCmdBasedOnDestination,
                          ppcCmdBasedOnDestinationFilter, ppcCmdBasedOnDestinationDestination,
                          piCmdBasedOnDestinationFilteringType});
  return valid ? 0 : kFailure;
}

int MyConfiguration::analyzeCommandKeys() {
  for (const char* const key : kCommandKeys)
    if (analyzeCommandKey(key) != 0) return kFailure;
  return 0;
}
