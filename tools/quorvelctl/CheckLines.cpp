// What the program would refuse, and what it would read otherwise than it is meant, line by line.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "app/config/KeyRegistry.h"
#include "app/config/KeyValue.h"
#include "app/config/MyConfiguration.h"
#include "app/config/Scan.h"
#include "app/config/Settings.h"
#include "app/config/TextFile.h"
#include "engine/Glob.h"
#include "tools/quorvelctl/Check.h"

namespace {

using Weight = sFinding::Weight;

constexpr std::string_view kFieldEnd = "::";  // of a line of the routing file

// The collected records as findings: errors where the program would not start, otherwise worth knowing.
void takeRecordsAs(bool isError, Findings& findings, int line, std::string_view key) {
  for (const sRecord& record : takeRecords()) {
    const Weight weight = isError                                 ? Weight::eError
                          : record.level == sRecord::Level::eInfo ? Weight::eInformation
                                                                  : Weight::eWarning;
    findings.add({weight, line, std::string(key), record.text});
  }
}

bool isNumeric(const sKey& key) {
  return key.type == KeyType::eInteger || key.type == KeyType::eFloat;
}

std::string_view trimmed(std::string_view text) {
  constexpr const char* kBlanks = " \t\r\n";
  text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
  return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

// What an integer of the file is, were there no limit.
bool fitsAnInteger(std::string_view word) {
  int value = 0;
  word.remove_prefix(word.starts_with('+') ? 1 : 0);
  return std::from_chars(word.data(), word.data() + word.size(), value).ec != std::errc::result_out_of_range;
}

// What the program makes of a number that is none, or that has more behind it.
void judgeNumber(Findings& findings, const sKey& key, std::string_view value, int line) {
  const bool isInteger = key.type == KeyType::eInteger;
  const std::string_view word = scanWord(value);
  const bool isRead = isInteger ? scanInteger(value).has_value() : scanFloat(value).has_value();
  const std::string name = key.pcName;
  if (!isRead)
    return findings.add({Weight::eWarning, line, name,
                         "is no number: the program goes on with the value it had, at its start 0"});
  const bool isWhole = word.find_first_not_of(isInteger ? "+-0123456789" : "+-.0123456789eE") == word.npos;
  if (!isWhole)
    findings.add({Weight::eWarning, line, name, "is read only up to what is no digit: " + std::string(word)});
  else if (isInteger && !fitsAnInteger(word))
    findings.add(
        {Weight::eWarning, line, name,
         "is beyond every number that is possible and read as " + std::to_string(*scanInteger(value))});
}

bool isSecret(std::string_view key) {
  return key.find("ecret") != key.npos || key.find("SECRET") != key.npos;
}

// Words of the file, but no password.
std::string shown(std::string_view words) {
  constexpr std::size_t kMost = 200;
  const std::string_view part = isSecret(words) ? scanWord(words) : words.substr(0, kMost);
  return std::string(part) + (part.size() < words.size() ? " ..." : "");
}

// A word ends at a blank. What looks like a comment is left out on purpose; in a list, ";" begins one only
// where a blank follows.
void judgeRest(Findings& findings, const sKey& key, std::string_view value, int line) {
  const std::string_view word = scanWord(value), whole = trimmed(value);
  const std::string_view rest = trimmed(whole.substr(word.size()));
  const bool isList = key.type == KeyType::eListWord && rest.size() > 1 && rest[1] != ' ';
  const bool isComment =
      rest.starts_with("//") || rest.starts_with('#') || (rest.starts_with(';') && !isList);
  if (rest.empty() || isComment) return;
  const std::string ignored = isSecret(key.pcName) ? "" : ": " + std::string(rest) + " is ignored";
  findings.add({Weight::eWarning, line, key.pcName, "is read only up to its first blank" + ignored});
}

// A blank of an expression is part of it; names of headers may end with one, but begin a line.
void judgeExpressions(Findings& findings, const sKey& key, std::string_view value, int line) {
  value = value.substr(0, value.find_last_not_of("\r\n") + 1);
  while (!value.empty()) {
    const std::string_view one = value.substr(0, value.find(';'));
    value.remove_prefix(std::min(one.size() + 1, value.size()));
    const bool isHeader = std::string_view(key.pcName) == "PSHExpressions";
    if (trimmed(one).empty() && value.empty()) return;
    if (one.starts_with(' ') || one.starts_with('\t') || (!isHeader && trimmed(one) != one))
      findings.add({Weight::eWarning, line, key.pcName,
                    "the expression \"" + std::string(one) +
                        "\" begins or ends with a blank, which counts as part of it"});
  }
}

// What hides a key, or a whole file, from the program; empty when nothing does.
const char* disguiseOf(std::string_view text) {
  const std::size_t alone = text.find('\r');
  if (text.starts_with("\xEF\xBB\xBF"))
    return "begins with a byte order mark, which counts as part of the line: save the file without it";
  if (text.starts_with("\xFF\xFE") || text.starts_with("\xFE\xFF"))
    return "the file is UTF-16, of which nothing can be read: save it as UTF-8";
  if (alone != text.npos && alone + 1 < text.size() && text[alone + 1] != '\n')
    return "a carriage return stands in the line: where lines end with that alone, the file is one line";
  const std::string_view key = text.substr(0, text.find('='));
  if (key.size() < text.size() && !trimmed(key).starts_with(';') &&
      std::any_of(key.begin(), key.end(), [](unsigned char c) { return c < ' ' || c == 0x7F; }))
    return "a tab or a control character stands before the = sign and counts as part of the key";
  return nullptr;
}

class FileCheck {
 public:
  explicit FileCheck(Findings& out) : findings(out) {}

  bool run(const std::string& path) {
    const File file = openForReading(path.c_str());
    if (!file) {
      const std::string why = errno == EACCES ? "may not be read: " + advice(path)
                                              : std::string("cannot be read: ") + std::strerror(errno);
      findings.add({Weight::eError, 0, "", why});
      return false;
    }
    LineReader lines(file.get());
    bool isWhole = true;
    for (int line = 1; lines.next(); line += isWhole ? 1 : 0) {
      if (!isWhole)
        findings.add({Weight::eWarning, line, "",
                      "is longer than " + std::to_string(kMaxLineLength) +
                          " characters: the rest counts as a line of its own"});
      checkLine(lines.text(), line);
      isWhole = lines.bytes().ends_with('\n');
    }
    if (lines.failed()) findings.add({Weight::eError, 0, "", "cannot be read to its end"});
    checkDefaults();
    checkCommandKeys();
    return true;
  }

 private:
  void checkLine(std::string_view text, int line) {
    if (const char* disguise = disguiseOf(text)) findings.add({Weight::eWarning, line, "", disguise});
    const sAssignment assignment = readAssignment(text);
    if (assignment.value.empty()) return checkUnused(text, line);
    const int index = findKey(assignment.key);
    const std::string name(assignment.key);
    if (index < 0)
      return findings.add(
          {Weight::eWarning, line, shown(name), "is no key of the configuration and has no effect"});
    if (const int earlier = findings.lineOf(name); earlier > 0)
      findings.add({Weight::eWarning, line, name, "replaces the value of line " + std::to_string(earlier)});
    findings.setLine(name, line);
    const sKey& key = keyRegistry()[static_cast<std::size_t>(index)];
    const auto judge = isNumeric(key)                      ? judgeNumber
                       : key.type == KeyType::eExpressions ? judgeExpressions
                                                           : judgeRest;
    judge(findings, key, assignment.value, line);
    if (key.type == KeyType::ePath && assignment.value.starts_with('/'))
      findings.add({Weight::eWarning, line, name,
                    "is put behind the installation directory although it begins with a slash"});
    const KeyOutcome outcome = storeKeyValue(key, assignment.value);
    if (key.sCheck.kind == sKeyCheck::Kind::eRoutingFile)
      checkRoutingFile(outcome == KeyOutcome::eRefused, name, line);
    else
      takeRecordsAs(outcome == KeyOutcome::eRefused, findings, line, name);
    if (outcome == KeyOutcome::eNotGiven)
      findings.add({Weight::eWarning, line, name, "has no value that can be read"});
  }

  // Every line, where the program stops at the first that is bad; and what it passes over without a word.
  void checkRoutingFile(bool isRefused, const std::string& key, int keyLine) {
    const std::string path(pcSipRoutingFile.view());
    const File file = openForReading(path.c_str());
    if (!file) return takeRecordsAs(isRefused, findings, keyLine, key);
    takeRecords();
    if (isRefused) findings.add({Weight::eError, keyLine, key, "has lines in " + path + " that are wrong"});
    const auto add = [&](Weight weight, int line, std::string text) {
      findings.add({weight, line, "", std::move(text), path});
    };
    iNumSipRoutingRecords = 0;
    LineReader lines(file.get());
    for (int line = 1; line <= kMaxSipRoutingRows && lines.next(); ++line) {
      const bool isBad = myConfiguration.readSipRoutingLine(lines.text()) != 0;
      for (const sRecord& record : takeRecords())
        add(isBad ? Weight::eError : Weight::eWarning, line, record.text);
      iNumSipRoutingRecords = line;  // the program counts rows, not lines
      if (isBad) continue;
      const std::string_view rest =
          trimmed(lines.text().substr(lines.text().rfind(kFieldEnd) + kFieldEnd.size()));
      if (rest.empty())
        add(Weight::eWarning, line, "has no expression, so it matches no call");
      else if (!rest.ends_with(';'))
        add(Weight::eWarning, line,
            "has no ; behind its last expression, which is ignored: " + std::string(rest));
    }
  }

  // A line that assigns nothing: meant so, or with a slip.
  void checkUnused(std::string_view text, int line) {
    const std::string_view words = trimmed(text);
    if (words.empty() || words.starts_with(';')) return;
    const std::size_t equals = words.find('=');
    if (equals == std::string_view::npos)
      return findings.add({Weight::eWarning, line, "", "has no = sign and is ignored: " + shown(words)});
    findings.add({Weight::eWarning, line, shown(trimmed(words.substr(0, equals))),
                  "has no value and counts as not given"});
  }

  void checkDefaults() {
    for (const sKey& key : keyRegistry()) {
      if (findings.lineOf(key.pcName) > 0) continue;
      const bool missing = !storeKeyDefault(key);
      // What is worked out from the PBX's address says nothing while there is none.
      if (!missing && findings.isRefused("SipProxyIP")) takeRecords();
      takeRecordsAs(missing, findings, 0, key.pcName);
    }
  }

  void checkCommandKeys() {
    if (findings.isRefused("Separator")) return;
    if (!findings.isRefused(kDefaultCommandKey)) (void)analyzeKey(kDefaultCommandKey);
    checkRules(kCallerRulesKey, pcCmdBasedOnCallerID, iNumCmdBasedOnCallerID);
    checkRules(kDestinationRulesKey, pcCmdBasedOnDestination, iNumCmdBasedOnDestination);
  }

  bool analyzeKey(const char* key) {
    const bool refused = myConfiguration.analyzeCommandKey(key) != 0;
    takeRecordsAs(refused, findings, findings.lineOf(key), key);
    return !refused;
  }

  // The program stops at the first bad rule; we go on behind it.
  template <typename Text>
  void checkRules(const char* key, Text& rules, const int& count) {
    if (findings.isRefused(key)) return;
    const Text whole = rules;
    while (!analyzeKey(key)) {
      std::string_view rest = rules;
      for (int rule = 0; rule <= count; ++rule) rest.remove_prefix(rest.find(';') + 1);
      (void)rules.assign(std::string(rest));
    }
    rules = whole;
  }

  Findings& findings;
};

}  // namespace

bool checkLines(Findings& findings, const std::string& path) {
  return FileCheck(findings).run(path);
}
