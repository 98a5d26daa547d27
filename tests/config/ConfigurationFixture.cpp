#include "tests/config/ConfigurationFixture.h"

#include "app/config/MyConfiguration.h"
#include "app/config/ProcessState.h"

namespace {

struct AsText {
  std::string operator()(const int* setting) const { return std::to_string(*setting); }
  std::string operator()(const Relaxed<int>* setting) const { return std::to_string(setting->load()); }
  std::string operator()(const Relaxed<float>* setting) const {
    FixedText<32> text;
    (void)text.format("%.9g", static_cast<double>(setting->load()));
    return text.c_str();
  }
  std::string operator()(const TextTarget& setting) const { return setting.load(); }
  std::string operator()(const sExpressionTarget& setting) const {
    std::string text;
    for (int i = 0; i < *setting.piCount; ++i)
      text += std::string((*setting.psList)[static_cast<std::size_t>(i)].view()) + ";";
    return text;
  }
};

}  // namespace

std::string settingText(std::string_view key) {
  const int index = findKey(key);
  if (index < 0) return "<no such key>";
  return std::visit(AsText{}, keyRegistry()[static_cast<std::size_t>(index)].target);
}

ConfigurationTest::ConfigurationTest() {
  (void)pcMyIPAsDetectedInternally.assign("192.0.2.77");
}

Assignments ConfigurationTest::requiredKeys() {
  return {{"ConfigVersion", "2"},
          {"IPVersion", "4"},
          {"SipProxyIP", "127.0.0.1"},
          {"SipProxyPort", "5060"},
          {"SipUAPort", "5070"},
          {"RtpUAPortInitVal", "20000"},
          {"Separator", "##"},
          {"NumPhonesToAllocate", "6"},
          {"RegisterOrigPhones", "0"},
          {"RegisterPairPhones", "0"},
          {"NeedToCheckDTMF", "1"},
          {"CPUPower", "5"},
          {"DetectAggressiveLevel", "2"},
          {"CleanAggressiveLevel", "8"},
          {"AECAlgorithm", "advanced"}};
}

std::string ConfigurationTest::fileText(const Assignments& keys, std::string_view lines) {
  std::string text;
  for (const auto& [key, value] : keys)
    if (!value.empty()) text += key + "=" + value + "\n";
  return text.append(lines);
}

int ConfigurationTest::loadText(std::string_view text, bool reload) {
  installation.clearLog();
  return myConfiguration.readParams(installation.write("test.conf", text).c_str(), reload);
}

int ConfigurationTest::load(const Assignments& changes, bool reload) {
  Assignments keys = requiredKeys();
  for (const auto& [key, value] : changes) keys[key] = value;
  return loadText(fileText(keys), reload);
}

int ConfigurationTest::loadLines(std::string_view lines, bool reload) {
  return loadText(fileText(requiredKeys(), lines), reload);
}

void ConfigurationTest::expectOnlyError(const std::string& message, std::string_view function) const {
  EXPECT_EQ(installation.logCount(" ERROR in " + std::string(function) + ", " + message), 1)
      << installation.log();
  EXPECT_EQ(installation.logCount(" ERROR in "), 1) << installation.log();
}
