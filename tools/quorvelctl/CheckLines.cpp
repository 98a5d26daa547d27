// What the program would refuse, and what it would read otherwise than it is meant, line by line.
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstring>

#include "app/config/KeyRegistry.h"
#include "app/config/KeyValue.h"
#include "app/config/MyConfiguration.h"
#include "app/config/Scan.h"
#include "app/config/TextFile.h"
#include "tools/quorvelctl/Check.h"

namespace {

using Weight = sFinding::Weight;

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
    for (int line = 1; lines.next(); ++line) checkLine(lines.text(), line);
    if (lines.failed()) findings.add({Weight::eError, 0, "", "cannot be read to its end"});
    checkDefaults();
    const bool refused = myConfiguration.analyzeCommandKeys() != 0;
    takeRecordsAs(refused, findings, 0, "");
    return true;
  }

 private:
  void checkLine(std::string_view text, int line) {
    const sAssignment assignment = readAssignment(text);
    if (assignment.value.empty()) return;
    const int index = findKey(assignment.key);
    const std::string name(assignment.key);
    if (index < 0)
      return findings.add({Weight::eWarning, line, name, "is no key of the configuration and has no effect"});
    if (const int earlier = findings.lineOf(name); earlier > 0)
      findings.add({Weight::eWarning, line, name, "replaces the value of line " + std::to_string(earlier)});
    findings.setLine(name, line);
    const sKey& key = keyRegistry()[static_cast<std::size_t>(index)];
    if (isNumeric(key)) judgeNumber(findings, key, assignment.value, line);
    if (key.type == KeyType::ePath && assignment.value.starts_with('/'))
      findings.add({Weight::eWarning, line, name,
                    "is put behind the installation directory although it begins with a slash"});
    const KeyOutcome outcome = storeKeyValue(key, assignment.value);
    takeRecordsAs(outcome == KeyOutcome::eRefused, findings, line, name);
    if (outcome == KeyOutcome::eNotGiven)
      findings.add({Weight::eWarning, line, name, "has no value that can be read"});
  }

  void checkDefaults() {
    for (const sKey& key : keyRegistry()) {
      if (findings.lineOf(key.pcName) > 0) continue;
      const bool missing = !storeKeyDefault(key);
      takeRecordsAs(missing, findings, 0, key.pcName);
    }
  }

  Findings& findings;
};

}  // namespace

bool checkLines(Findings& findings, const std::string& path) {
  return FileCheck(findings).run(path);
}
