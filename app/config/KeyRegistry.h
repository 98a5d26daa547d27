// The keys of the configuration file: one constant row per key, which says where its value goes, what is
// checked, what holds when the key is absent, whether a reload may change it, and what it is for. Loading,
// defaults, reloading, the sample configuration and the manual's list of keys all come from these rows.
//
// The order of the rows is the order in which defaults are applied; a computed default may use the keys
// before it.
#pragma once

#include <cstddef>
#include <limits>
#include <span>
#include <string>
#include <string_view>
#include <variant>

#include "app/config/Settings.h"

// How a value is taken from its line.
enum class KeyType {
  eInteger,     // the leading decimal integer
  eFloat,       // the leading floating-point number
  eWord,        // the first run of characters that are not blank
  eListWord,    // a word that gets a ";" at its end if it has none
  ePath,        // a word that names a file or directory relative to the installation directory
  eAddress,     // a word that is an IPv4 address or a host name; its dotted form is stored
  eExpressions  // the whole rest of the line, split at ";"
};

// A FixedText or SharedText of any capacity. The capacity is the limit of the key.
class TextTarget {
 public:
  template <typename Text>
  explicit constexpr TextTarget(Text& text)
      : pvText(&text), pfAssign(&assignTo<Text>), pfLoad(&loadFrom<Text>), iMaxLength(Text::maxLength()) {}

  // False, and the old text stays, when it does not fit.
  [[nodiscard]] bool assign(std::string_view text) const { return pfAssign(pvText, text); }
  // A copy, for whoever shows settings.
  [[nodiscard]] std::string load() const { return pfLoad(pvText); }
  [[nodiscard]] constexpr std::size_t maxLength() const { return iMaxLength; }

 private:
  template <typename Text>
  static bool assignTo(void* text, std::string_view value) {
    return static_cast<Text*>(text)->assign(value);
  }
  template <typename Text>
  static std::string loadFrom(const void* text) {
    if constexpr (requires(const Text& shared) { shared.load(); })
      return std::string(static_cast<const Text*>(text)->load().view());
    else
      return std::string(static_cast<const Text*>(text)->view());
  }

  void* pvText;
  bool (*pfAssign)(void*, std::string_view);
  std::string (*pfLoad)(const void*);
  std::size_t iMaxLength;
};

struct sExpressionTarget {
  int* piCount;
  ExpressionList* psList;
};

using KeyTarget = std::variant<int*, Relaxed<int>*, Relaxed<float>*, TextTarget, sExpressionTarget>;

// What is asked of a value beyond fitting its place. The first check that fails decides the message.
struct sKeyCheck {
  enum class Kind {
    eNone,
    eSupported,     // exactly iLow
    eFlag,          // 0 or 1
    eRange,         // iLow to iHigh, both included
    ePositive,      // at least 1
    eRaised,        // anything, but what is below iLow becomes iLow
    eEvenCount,     // even, at least 1, at most iHigh, asked in this order
    eAecAlgorithm,  // one of the four names
    eRoutingFile    // the routing file is read at once and must be right
  };
  Kind kind = Kind::eNone;
  int iLow = std::numeric_limits<int>::min();
  int iHigh = std::numeric_limits<int>::max();
};

// What holds when the file does not give the key, and what the sample configuration shows.
struct sKeyDefault {
  enum class Kind { eText, eRequired, eComputed };
  Kind kind = Kind::eText;
  const char* pcText = "";          // eText: the value as a file would give it, empty for none
  void (*pfCompute)() = nullptr;    // eComputed: stores the value
  const char* pcComputed = "";      // eComputed: what it does, for the manual
  const char* pcExample = nullptr;  // a useful value; the default where there is none
  bool bSetInSample = false;        // the sample sets the example, otherwise it shows it as a comment
};

// Chapters of the sample configuration and of the manual.
enum class KeyGroup {
  eFile,
  eAddresses,
  eIdentities,
  eCommands,
  eCalls,
  eEngine,
  eEcho,
  eGain,
  eDtmf,
  eRecordings,
  eStatistics,
  eDiagnosis
};
inline constexpr int kKeyGroups = static_cast<int>(KeyGroup::eDiagnosis) + 1;

struct sKey {
  const char* pcName;  // exactly as written in the file
  KeyType type;
  KeyTarget target;
  sKeyDefault sDefault;
  sKeyCheck sCheck;
  bool bReloadable;
  KeyGroup group;
  const char* pcHelp;  // one sentence

  [[nodiscard]] bool required() const { return sDefault.kind == sKeyDefault::Kind::eRequired; }
};

inline constexpr std::size_t kNumKeys = 86;

// All keys, in their order.
std::span<const sKey, kNumKeys> keyRegistry();
// Index of the key with exactly that name, or -1.
int findKey(std::string_view name);
// Heading of a group.
const char* keyGroupTitle(KeyGroup group);
