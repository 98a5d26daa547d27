#include "tools/quorvel-keys-print.h"

#include <algorithm>
#include <cstdio>
#include <string>
#include <string_view>

#include "app/config/KeyRegistry.h"

namespace {

using Kind = sKeyCheck::Kind;

constexpr std::size_t kSampleWidth = 100;  // longest line of the sample

constexpr const char* kSampleHead =
    "; Configuration of Quorvel, the voice-quality proxy for IP telephony.\n"
    ";\n"
    "; One key=value per line. A line that begins with a semicolon is a comment; keys that are commented\n"
    "; out stand here with the value they have by default, or with an example where there is none. File\n"
    "; and directory names are relative to the installation directory (KESTROVA_BIN).\n"
    ";\n"
    "; This file runs as it stands beside a PBX on the same machine: phones send their calls to port 5070\n"
    "; of this host, Quorvel improves the audio of both directions and passes each call to the PBX at\n"
    "; port 5060.\n"
    ";\n"
    "; Keys marked \"reload\" take effect while calls go on, when the file is read again.\n";

constexpr const char* kManualHead =
    "# Configuration keys\n\n"
    "One `key=value` per line; case matters, unknown keys are ignored, the last of several lines wins. Keys "
    "marked R are\napplied by a reload, the others at start-up only. \"required\" means that loading fails "
    "without the key.\n\n"
    "| Type | Value |\n|---|---|\n";

struct sTypeText {
  const char* pcName;
  const char* pcValue;
};
constexpr sTypeText kTypeTexts[] = {
    {"integer", "leading decimal number; what follows it is ignored"},
    {"number", "leading decimal number with a fraction"},
    {"word", "text up to the first blank"},
    {"list", "word whose items each end with `;` (a last one is added)"},
    {"path",
     "word, put behind the installation directory as it is, absolute ones too; the limit counts both"},
    {"address", "IPv4 address or host name"},
    {"expressions", "rest of the line, split at `;`: at most 10 of at most 49 characters"}};

const char* typeName(KeyType type) {
  switch (type) {
    case KeyType::eInteger:
      return "integer";
    case KeyType::eFloat:
      return "number";
    case KeyType::eWord:
      return "word";
    case KeyType::eListWord:
      return "list";
    case KeyType::ePath:
      return "path";
    case KeyType::eAddress:
      return "address";
    case KeyType::eExpressions:
      return "expressions";
  }
  return "";
}

// What a value must be, beyond its type; empty for no limit.
std::string limits(const sKey& key) {
  const std::string low = std::to_string(key.sCheck.iLow);
  const std::string high = std::to_string(key.sCheck.iHigh);
  switch (key.sCheck.kind) {
    case Kind::eSupported:
      return "only " + low;
    case Kind::eFlag:
      return low + " or " + high;
    case Kind::eRange:
      return low + " to " + high;
    case Kind::ePositive:
    case Kind::eRaised:
      return "at least " + low;
    case Kind::eEvenCount:
      return "even, 2 to " + high;
    case Kind::eAecAlgorithm:
      return "one of four names";
    default:
      break;
  }
  const auto* text = std::get_if<TextTarget>(&key.target);
  if (text == nullptr || key.type == KeyType::eAddress) return "";
  return "at most " + std::to_string(text->maxLength()) + " characters";
}

std::string defaultText(const sKey& key) {
  switch (key.sDefault.kind) {
    case sKeyDefault::Kind::eRequired:
      return "required";
    case sKeyDefault::Kind::eComputed:
      return key.sDefault.pcComputed;
    case sKeyDefault::Kind::eText:
      break;
  }
  return *key.sDefault.pcText == '\0' ? "empty" : "`" + std::string(key.sDefault.pcText) + "`";
}

// ---- The sample configuration ----

// "; " before every line, broken at blanks.
void printComment(const std::string& text) {
  std::string line = ";";
  std::size_t at = 0;
  while (at < text.size()) {
    const std::size_t end = std::min(text.find(' ', at), text.size());
    const std::string word = text.substr(at, end - at);
    if (line.size() + 1 + word.size() > kSampleWidth) {
      std::puts(line.c_str());
      line = ";";
    }
    line += " " + word;
    at = end + 1;
  }
  std::puts(line.c_str());
}

void printSampleKey(const sKey& key) {
  std::string note;
  const auto add = [&note](const std::string& text) { note += (note.empty() ? "" : "; ") + text; };
  if (key.required()) add("required");
  if (key.sDefault.kind == sKeyDefault::Kind::eComputed) add("default: " + defaultText(key));
  if (const std::string limit = limits(key); !limit.empty()) add(limit);
  if (key.bReloadable) add("reload");
  printComment(key.pcHelp + (note.empty() ? "" : " (" + note + ")"));

  const bool hasExample = key.sDefault.pcExample != nullptr;
  std::printf("%s%s=%s\n\n", key.sDefault.bSetInSample ? "" : ";", key.pcName,
              hasExample ? key.sDefault.pcExample : key.sDefault.pcText);
}

}  // namespace

void printSample() {
  std::fputs(kSampleHead, stdout);
  for (int group = 0; group < kKeyGroups; ++group) {
    std::printf("\n; ---- %s ----\n\n", keyGroupTitle(static_cast<KeyGroup>(group)));
    for (const sKey& key : keyRegistry())
      if (key.group == static_cast<KeyGroup>(group)) printSampleKey(key);
  }
}

void printManual() {
  std::fputs(kManualHead, stdout);
  for (const sTypeText& type : kTypeTexts) std::printf("| %s | %s |\n", type.pcName, type.pcValue);
  for (int group = 0; group < kKeyGroups; ++group) {
    std::printf("\n## %s\n\n| Key | Type | Default | Limits | R | Meaning |\n|---|---|---|---|---|---|\n",
                keyGroupTitle(static_cast<KeyGroup>(group)));
    for (const sKey& key : keyRegistry()) {
      if (key.group != static_cast<KeyGroup>(group)) continue;
      std::printf("| `%s` | %s | %s | %s | %s | %s |\n", key.pcName, typeName(key.type),
                  defaultText(key).c_str(), limits(key).c_str(), key.bReloadable ? "R" : "", key.pcHelp);
    }
  }
}

// Text for troff: backslashes doubled, and no line that begins like a request.
static std::string forTroff(std::string_view text) {
  std::string out;
  for (const char character : text) {
    if (character == '`') continue;
    if (character == '\\') out += '\\';
    out += character;
  }
  return out.starts_with('.') || out.starts_with('\'') ? "\\&" + out : out;
}

void printManPage() {
  std::fputs(
      ".TH QUORVEL.CONF 5 \"\" Quorvel \"File formats\"\n"
      ".SH NAME\nquorvel.conf \\- configuration of the voice-quality proxy\n"
      ".SH DESCRIPTION\nOne\n.IR key = value\nper line; case matters and the last of several lines wins. A "
      "line "
      "that begins with a semicolon is a comment. File names are relative to the installation directory. "
      "What is "
      "marked (reload) takes effect while calls go on, when the file is read again.\n"
      ".PP\nWhat a value is:\n",
      stdout);
  for (const sTypeText& type : kTypeTexts)
    std::printf(".TP\n.I %s\n%s\n", type.pcName, forTroff(type.pcValue).c_str());
  for (int group = 0; group < kKeyGroups; ++group) {
    std::printf(".SH \"%s\"\n", keyGroupTitle(static_cast<KeyGroup>(group)));
    for (const sKey& key : keyRegistry()) {
      if (key.group != static_cast<KeyGroup>(group)) continue;
      const std::string limit = limits(key);
      std::printf(".TP\n.BR %s \" (%s%s%s; %s%s)\"\n%s%s\n", key.pcName, typeName(key.type),
                  limit.empty() ? "" : ", ", forTroff(limit).c_str(),
                  key.sDefault.kind == sKeyDefault::Kind::eText ? "default: " : "",
                  forTroff(defaultText(key)).c_str(), forTroff(key.pcHelp).c_str(),
                  key.bReloadable ? " (reload)" : "");
    }
  }
  std::fputs(".SH \"SEE ALSO\"\n.BR quorvel (8),\n.BR quorvelctl (1)\n", stdout);
}
