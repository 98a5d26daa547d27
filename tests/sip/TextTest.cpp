// Message text: search, header values, compact names, URIs, rewriting, name patterns.
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "app/config/Settings.h"
#include "sip/MySip.h"
#include "tests/support/SipText.h"
#include "tests/support/TestInstallation.h"

namespace {

class TextTest : public testing::Test {
 protected:
  TextTest() {
    pcSipProxyIP.assignCut("10.9.9.9");
    pcSipUAIP.assignCut("10.1.1.5");
  }
  ~TextTest() override {
    pcSipProxyIP.clear();
    pcSipUAIP.clear();
  }
  bool logged(std::string_view text) const { return installation.logCount(text) > 0; }

  TestInstallation installation;
};

// What the search must agree with, written as plainly as possible.
std::size_t slowSearch(std::string_view haystack, std::string_view needle) {
  const auto fold = [](std::string_view text) {
    std::string folded(text);
    for (char& character : folded)
      if (character >= 'A' && character <= 'Z') character = static_cast<char>(character + 32);
    return folded;
  };
  return fold(haystack).find(fold(needle));
}

TEST_F(TextTest, SearchAgreesWithAPlainSearchOnEveryKindOfNeedle) {
  // Few different characters make near misses and overlaps frequent; 0xE4 must not be taken for a letter.
  const std::string alphabet = "aAbB:-=\xE4\xC4@[`{";
  std::srand(7);
  const auto randomText = [&](int length) {
    std::string text;
    while (length-- > 0) text += alphabet[static_cast<std::size_t>(std::rand()) % alphabet.size()];
    return text;
  };
  for (int round = 0; round < 20000; ++round) {
    const std::string haystack = randomText(std::rand() % 80);
    std::string needle = randomText(1 + std::rand() % 4);
    if (round % 2 == 0 && !haystack.empty())  // one that occurs, also longer ones
      needle = haystack.substr(static_cast<std::size_t>(std::rand()) % haystack.size(),
                               1 + static_cast<std::size_t>(std::rand() % 40));
    ASSERT_EQ(MySip::stristr(haystack, needle), slowSearch(haystack, needle)) << haystack << " / " << needle;
  }
}

TEST_F(TextTest, SearchHandlesEmptyTextsAndRefusesTooLongOnes) {
  EXPECT_EQ(MySip::stristr("abc", ""), 0U);
  EXPECT_FALSE(MySip::contains("", "a"));
  EXPECT_TRUE(MySip::contains("x\r\nCALL-ID: 1\r\n", "call-id:"));

  const std::string longest(9998, 'x');
  EXPECT_EQ(MySip::stristr(longest + "y", "Y"), 9998U);
  EXPECT_EQ(installation.log(), "");
  EXPECT_EQ(MySip::stristr(longest + "xy", "Y"), 0U);
  EXPECT_TRUE(logged("ERROR in MySip::stristr, strings to big 10000 1\n"));
}

TEST_F(TextTest, HeaderValueIsFoundAnywhereAndSpansLinesOfTheSameName) {
  const char* const same = nullptr;
  // Why, name, message, value; and what of it may be passed on, if not all.
  const std::tuple<const char*, const char*, const char*, const char*, const char*> cases[] = {
      {"blanks skipped, any case", "To:", "X: 1\r\nTO:   <sip:a@b>\r\n\r\n", "<sip:a@b>", same},
      {"not anchored to the line start", "To:", "Refer-To: x\r\nTo: y\r\n\r\n", "x\r\nTo: y", same},
      {"earlier text wins", "To:", "Refer-To: x\r\nA: 1\r\nTo: y\r\n\r\n", "x", same},
      {"two lines", "Via:", "Via: a\r\nVia: b\r\nCSeq: 1\r\n\r\n", "a\r\nVia: b", same},
      {"three lines", "Via:", "Via: a\r\nvia: b\r\nVia:c\r\nX: 1\r\n\r\n", "a\r\nvia: b\r\nVia:c", same},
      {"a separated line is left out", "Via:", "Via: a\r\nVia: b\r\nX: 1\r\nVia: c\r\n\r\n", "a\r\nVia: b",
       same},
      {"the name in the following line's value", "Via:", "Via: a\r\nX: Via: b\r\nY: 1\r\n\r\n",
       "a\r\nX: Via: b", "a"},
      {"the same, later", "Via:", "Via: a\r\nvia: b\r\nX: Via: c\r\nY: 1\r\n\r\n", "a\r\nvia: b\r\nX: Via: c",
       "a\r\nvia: b"},
      {"a line of the body", "To:", "X: 1\r\n\r\nTo: a\nTo: b\r\n", "a\nTo: b", "a"},
      {"the name again in its own line", "Via:", "Via: a Via: b\r\nX: 1\r\n\r\n", "a Via: b", same},
      {"empty value", "To:", "To: \r\nCSeq: 1\r\n\r\n", "", same},
      {"last line of the message", "To:", "To: a\r\n", "a", same},
      {"not beyond the empty line", "To:", "To: a\r\n\r\nTo: body\r\n", "a", same},
  };
  for (const auto& [why, name, message, value, own] : cases) {
    EXPECT_EQ(MySip::extractToken(name, 100, message), value) << why;
    EXPECT_EQ(MySip::extractHeader(name, 100, message), own == same ? value : own) << why;
  }
  EXPECT_EQ(MySip::callIdOf("Call-ID: a@b\r\nCall-ID: c\r\n\r\n"), "a@b");
  EXPECT_EQ(installation.log(), "");
}

TEST_F(TextTest, HeaderValueFailuresAreLogged) {
  const std::string message = "Call-ID: 123456789\r\nTo: x\r\n\r\n";
  EXPECT_EQ(MySip::extractToken("Call-ID:", 11, message), "123456789");
  EXPECT_EQ(MySip::extractToken("Call-ID:", 10, message), "123456789");
  EXPECT_EQ(MySip::extractToken("Call-ID:", 9, message), "");
  EXPECT_TRUE(logged("ERROR in MySip::extractToken, Call-ID: is too long 9"));

  EXPECT_EQ(MySip::extractToken("Via:", 100, message), "");
  EXPECT_TRUE(logged("unable to find Via: in \n" + message + "\n"));
  for (const char* open : {"To: a", "To:", "Via: 1\r\nTo: a\r\nTo: b"})
    EXPECT_EQ(MySip::extractToken("To:", 100, open), "") << open;
  EXPECT_EQ(installation.logCount("unable to find end sequence CRLF\n"), 3);
  EXPECT_EQ(MySip::extractToken("", 100, message), "");
}

TEST_F(TextTest, CompactNamesAreWrittenOutOnlyAtLineStartsWithColonAndBlank) {
  const std::pair<const char*, const char*> cases[] = {
      {"i: abc\r\nI: abc\r\n", "Call-ID: abc\r\nCall-ID: abc\r\n"},
      {"i:abc\r\nii: abc\r\nd: x\r\n i: y\r\n:: z\r\n", "i:abc\r\nii: abc\r\nd: x\r\n i: y\r\n:: z\r\n"},
      {"a: 1\r\nb: 2\r\nc: 3\r\ne: 4\r\nf: 5\r\nk: 6\r\nl: 7\r\nm: 8\r\n",
       "Accept-Contact: 1\r\nReferred-By: 2\r\nContent-Type: 3\r\nContent-Encoding: 4\r\nFrom: 5\r\n"
       "Supported: 6\r\nContent-Length: 7\r\nContact: 8\r\n"},
      {"o: 1\r\nr: 2\r\ns: 3\r\nt: 4\r\nu: 5\r\nv: 6\r\n",
       "Event: 1\r\nRefer-To: 2\r\nSubject: 3\r\nTo: 4\r\nAllow-Events: 5\r\nVia: 6\r\n"},
      {"INVITE x\r\nv: 1\r\n\r\ni: no line end", "INVITE x\r\nVia: 1\r\n\r\ni: no line end"},
      {"", ""},
  };
  for (const auto& [before, after] : cases) {
    FixedText<3000> message;
    ASSERT_TRUE(message.assign(before));
    EXPECT_TRUE(MySip::translateCompactHeaders(message));
    EXPECT_EQ(message, after);
  }
}

TEST_F(TextTest, CompactNamesStayWhereTheResultWouldBeTooLong) {
  for (const std::size_t resultLength : {2998U, 2999U, 3000U}) {
    std::string text = "v: ";
    text.resize(resultLength - 4, 'x');  // "Via: " has two characters more than "v: "
    text += "\r\n";
    FixedText<3000> message;
    ASSERT_TRUE(message.assign(text));
    const bool fits = resultLength <= 2999;
    EXPECT_EQ(MySip::translateCompactHeaders(message), fits) << resultLength;
    EXPECT_EQ(message.view(), fits ? "Via: " + text.substr(3) : text);
  }
}

TEST_F(TextTest, UriIsTakenApart) {
  const struct {
    const char* text;
    const char* name;
    int port;
    bool udp;
    const char* ip;
  } cases[] = {
      {"sip:alice@10.0.0.5:5070;transport=tcp", "alice@10.0.0.5", 5070, false, "10.0.0.5"},
      {"sip:alice@10.0.0.5>;tag=1", "alice@10.0.0.5", 5060, true, "10.0.0.5"},
      {"sip:10.0.0.5  ", "10.0.0.5", 5060, true, "10.0.0.5"},
      {"sip:10.0.0.5\r\n", "10.0.0.5", 5060, true, "10.0.0.5"},
      {"sip:a@10.0.0.5;lr;TRANSPORT=UDP;x", "a@10.0.0.5", 5060, true, "10.0.0.5"},
      {"sip:a@10.0.0.5;transport=Udp", "a@10.0.0.5", 5060, false, "10.0.0.5"},
      {"sip:a@10.0.0.5;maddr=10.0.0.6;lr", "a@10.0.0.5", 5060, true, "10.0.0.6"},
      {"sip:a@10.0.0.5;maddr=10.0.0.256", "a@10.0.0.5", 5060, true, "10.9.9.9"},
      {"sip:a@10.0.0.5;x=1:2", "a@10.0.0.5", 5060, true, "10.0.0.5"},
      {"sip:a@pbx.example:5062", "a@pbx.example", 5062, true, "10.9.9.9"},
      {"sip:1234;phone-context=x@10.0.0.9:5080", "1234@10.0.0.9", 5080, true, "10.9.9.9"},
      {"sip:1234;phone-context=x@10.0.0.9;lr", "1234@10.0.0.9", 5060, true, "10.9.9.9"},
      {"sip:1234;phone-context=x.example", "1234", 5060, true, "10.9.9.9"},
      {"sip:1@10.0.0.5;phone-context=x@10.0.0.9", "1@10.0.0.5", 5060, true, "10.0.0.5"},
      {"sip:", "", 5060, true, "10.9.9.9"},
  };
  for (const auto& one : cases) {
    sSipUri uri;
    EXPECT_EQ(MySip::analyzeURIString(one.text, uri), 0) << one.text;
    EXPECT_EQ(uri.pcName, one.name) << one.text;
    EXPECT_EQ(uri.iPort, one.port) << one.text;
    EXPECT_EQ(uri.bUdp, one.udp) << one.text;
    EXPECT_EQ(uri.pcIP, one.ip) << one.text;
  }
  sSipUri uri;
  EXPECT_EQ(MySip::analyzeURIString("sip:a@10.0.0.5:5070;lr>;q=1", uri), 0);
  EXPECT_EQ(uri.pcFullUri, "a@10.0.0.5:5070;lr");
  EXPECT_EQ(MySip::analyzeURIString("sip:a@10.0.0.5", uri, HostLookup::eYes), 0);
  EXPECT_EQ(uri.pcIP, "10.0.0.5");
}

TEST_F(TextTest, UriWithABadPartIsRefused) {
  const std::pair<const char*, const char*> cases[] = {
      {"sip:a@b:x", "unable to read port from x\n"},
      {"sip:a@b:-1", "unable to read port from -1\n"},
      {"sip:a@b:65536", "unable to read port from 65536\n"},
      {"sip:a@b:99999999999", "unable to read port from 99999999999\n"},
      {"sip:1;phone-context=a@b:", "unable to read port from \n"},
      {"sip:a@b;maddr=1234567890123456", "IP too long 16\n"},
  };
  for (const auto& [text, message] : cases) {
    sSipUri uri;
    installation.clearLog();
    EXPECT_EQ(MySip::analyzeURIString(text, uri), 1) << text;
    EXPECT_TRUE(logged(std::string("ERROR in MySip::analyzeURIString, ") + message)) << text;
  }
  sSipUri uri;
  EXPECT_EQ(MySip::analyzeURIString("sip:a;x\r\nX: y@b>", uri), 1);
  EXPECT_EQ(MySip::analyzeHeaderUri("sip:a@127.0.0.1:5070\r\nContact: <sip:b@127.0.0.2>", uri, "x"), 0);
  EXPECT_EQ(uri.pcFullUri, "a@127.0.0.1:5070");
}

TEST_F(TextTest, UriLengthsAreBounded) {
  for (const std::size_t length : {164U, 165U, 166U}) {
    sSipUri uri;
    const std::string name(length, 'n');
    EXPECT_EQ(MySip::analyzeURIString("sip:" + name, uri), length <= 165 ? 0 : 1);
    EXPECT_EQ(uri.pcName.view(), length <= 165 ? name : "");
    const std::string context = "@" + std::string(length - 5, 'h');
    EXPECT_EQ(MySip::analyzeURIString("sip:1234;phone-context=" + context, uri), length <= 165 ? 0 : 1);
    EXPECT_EQ(uri.pcName.view(), length <= 165 ? "1234" + context : "");
  }
  EXPECT_TRUE(logged("sip name too long 166\n"));
  EXPECT_TRUE(logged("sip name too long\n"));

  for (const std::size_t length : {198U, 199U, 200U}) {
    sSipUri uri;
    const std::string text = "a@b;" + std::string(length - 4, 'p');
    installation.clearLog();
    EXPECT_EQ(MySip::analyzeURIString("sip:" + text, uri), 0);
    EXPECT_EQ(uri.pcFullUri.view(), text.substr(0, 199));
    EXPECT_EQ(logged("WARNING in MySip::analyzeURIString, URI to big in sip:" + text), length == 200);
  }
}

TEST_F(TextTest, ShortNameIsTheUserPartOfTheFirstUri) {
  const std::pair<const char*, const char*> cases[] = {
      {"\"Bob\" <sip:bob@10.0.0.5:5062>;tag=1", "bob"},
      {"<SIP:10.0.0.5>", "10.0.0.5"},
      {"Bob", ""},
      {"<sip:bob@10.0.0.5:x>", ""},
  };
  for (const auto& [text, expected] : cases) {
    FixedText<kSipNameCapacity> name;
    name.assignCut("old");
    MySip::extractShortSipName(text, name);
    EXPECT_EQ(name, expected) << text;
  }
  EXPECT_TRUE(logged("unable to find sip: in the string: Bob\n"));
  EXPECT_TRUE(logged("error analyzing the URI String sip:bob@10.0.0.5:x>\n"));
}

TEST_F(TextTest, FarEndUriIsTheRequestUri) {
  FixedText<200> uri;
  MySip::extractFarEndURI(sip_text::build({.uri = "sip:200@10.0.0.1:5060;lr"}), uri);
  EXPECT_EQ(uri, "200@10.0.0.1:5060;lr");
  EXPECT_EQ(installation.log(), "");
  MySip::extractFarEndURI("INVITE sip:" + std::string(200, 'u') + " SIP/2.0\r\n", uri);
  EXPECT_EQ(uri.view(), std::string(199, 'u'));
  EXPECT_TRUE(logged("WARNING in MySip::extractFarEndURI, Size of RURI is too long.\n"));
  for (const char* bad : {"INVITE tel:1 SIP/2.0\r\n", "INVITE sip:1\r\n", "X: SIP/2.0\r\nFrom: sip:1\r\n",
                          "INVITE sip:1\r\nX: y\r\nVia: SIP/2.0/UDP h\r\n"}) {
    MySip::extractFarEndURI(bad, uri);
    EXPECT_EQ(uri, "") << bad;
  }
  EXPECT_EQ(installation.logCount("ERROR in MySip::extractFarEndURI, error analyzing the RURI\n"), 4);
}

TEST_F(TextTest, EveryViaIsTakenWhateverStandsBetween) {
  FixedText<1000> via;
  MySip::takeVia("INVITE x\r\nVia: a\r\nX: 1\r\nvia: b\r\nY: Via: no\r\nVia:c\r\n\r\nVia: body\r\n", via);
  EXPECT_EQ(via, "a\r\nvia: b\r\nVia:c");
  for (const std::size_t length : {988U, 989U}) {  // with "Via: " and two line ends: 999 characters, 1000
    MySip::takeVia("OPTIONS x\r\nVia: abcd\r\nX: 1\r\nVia: " + std::string(length, 'v') + "\r\n\r\n", via);
    EXPECT_EQ(via.size(), length == 988 ? 999U : 0U);
  }
  EXPECT_TRUE(logged("ERROR in MySip::takeVia, Via: is too long 1000"));
}

TEST_F(TextTest, FoldedHeaderLinesAreJoinedAndLoneLineBreaksAreBlanks) {
  const auto unfolded = [](std::string text) {
    MySip::unfoldHeaders(text);
    return text;
  };
  EXPECT_EQ(unfolded("A x\r\nTo: a\r\n \tb\r\n\tc\r\nY: 1\r\n\r\nv=0\r\n s\r\n"),
            "A x\r\nTo: a    b   c\r\nY: 1\r\n\r\nv=0\r\n s\r\n");
  for (const char* text : {"", "\r\n", " \r\n", "A\r\nB", "A\r\n\r\n b"}) EXPECT_EQ(unfolded(text), text);
  EXPECT_EQ(unfolded("A\r\n "), "A   ");
  EXPECT_EQ(unfolded("A\nx\r\nTo: a\rb\nX: c\r\n\nd\r\r\n\r\nv\n\r"),
            "A x\r\nTo: a b X: c\r\n d \r\n\r\nv\n\r");
  EXPECT_EQ(unfolded("A\r\nVia: b\rc\n"), "A\r\nVia: b c ") << "cut off";
  EXPECT_EQ(unfolded("no\nline\r"), "no\nline\r") << "not one header line";
}

TEST_F(TextTest, RportLeavesTheVia) {
  const std::pair<const char*, const char*> cases[] = {
      {"SIP/2.0/UDP h:1;rport=5062;branch=x", "SIP/2.0/UDP h:1;branch=x"},
      {"SIP/2.0/UDP h:1;branch=x;RPort", "SIP/2.0/UDP h:1;branch=x"},
      {"SIP/2.0/UDP h:1;branch=x", "SIP/2.0/UDP h:1;branch=x"},
      {"UDP h:1;branch=x;rport\r\nVia: UDP h:2;branch=y", "UDP h:1;branch=x\r\nVia: UDP h:2;branch=y"},
  };
  for (const auto& [before, after] : cases) {
    FixedText<1000> via;
    ASSERT_TRUE(via.assign(before));
    MySip::removeRport(via);
    EXPECT_EQ(via, after);
  }
}

TEST_F(TextTest, OwnHostInANameBecomesTheProxys) {
  const std::tuple<const char*, const char*, const char*> cases[] = {
      {"10.9.9.9", "a@10.1.1.5", "a@10.9.9.9"},
      {"10.9.9.9", "a@10.1.1.50", "a@10.1.1.50"},
      {"10.9.9.9", "10.1.1.5", "10.1.1.5"},
      {"127.0.0.1", "a@10.1.1.5", "a@10.1.1.5"},
  };
  FixedText<kSipNameCapacity> name;
  for (const auto& [proxy, before, after] : cases) {
    ASSERT_TRUE(pcSipProxyIP.assign(proxy) && name.assign(before));
    MySip::replaceProxyIPInSipName(name);
    EXPECT_EQ(name, after);
  }
  ASSERT_TRUE(pcSipProxyIP.assign("100.100.100.100"));
  for (const std::size_t length : {164U, 165U, 166U}) {
    const std::string user(length - 16, 'u');
    ASSERT_TRUE(name.assign(user + "@10.1.1.5"));
    MySip::replaceProxyIPInSipName(name);
    EXPECT_EQ(name.view(), user + (length <= 165 ? "@100.100.100.100" : "@10.1.1.5"));
  }
}

TEST_F(TextTest, CallIdSurvivesTheReplacesParameter) {
  FixedText<300> escaped;
  MySip::prepareCallIDToUseInReferReplaces("a1@b2@10.0.0.5", escaped);
  EXPECT_EQ(escaped, "a1%40b2%4010.0.0.5");
  MySip::prepareCallIDToUseInReferReplaces(std::string(99, '@'), escaped);
  EXPECT_EQ(escaped.size(), 297U);

  const std::pair<const char*, const char*> cases[] = {
      {"a1%4010.0.0.5%3Bto-tag%3D1%3Bfrom-tag%3D2@x", "a1@10.0.0.5"},
      {"a1%3bto-tag=%40", "a1"},
      {"a1%40b2%40c3", "a1@b2@"},
      {"a1", ""},
  };
  FixedText<367> callId;
  for (const auto& [text, expected] : cases) {
    MySip::extractCallIDFromReferReplaces(text, callId);
    EXPECT_EQ(callId, expected);
  }
  EXPECT_EQ(installation.logCount("can't find call-id in a1"), 2);
}

TEST_F(TextTest, NamePatternsMatchWholeNames) {
  const std::tuple<const char*, const char*, bool> cases[] = {
      {"1023", "10??", true}, {"102", "10??", false}, {"10234", "10??", false}, {"", "", true},
      {"a", "", false},       {"A", "a", false},      {"?", "?", true},         {"a?", "ab", false},
  };
  for (const auto& [name, pattern, matches] : cases)
    EXPECT_EQ(MySip::sipNameMatchRegularExpression(name, pattern), matches) << name;
}

TEST_F(TextTest, ListsAndRoutesAreTriedInOrderUpToTheirCount) {
  pcDOSExpressions[0].assignCut("9??");
  pcDOSExpressions[1].assignCut("8??");
  iNumberOfDOSExpressions = 1;
  iNumberOfAOSExpressions = 0;
  EXPECT_TRUE(MySip::sipNameInDOSList("911"));
  EXPECT_FALSE(MySip::sipNameInDOSList("811"));
  EXPECT_FALSE(MySip::sipNameInAOSList("911"));
  iNumberOfDOSExpressions = 0;

  iNumSipRoutingRecords = 2;
  psSipRoutingRows[0].iNumExpressions = 2;
  psSipRoutingRows[0].pcExpressions[0].assignCut("1???");
  psSipRoutingRows[0].pcExpressions[1].assignCut("2???");
  psSipRoutingRows[1].iNumExpressions = 1;
  psSipRoutingRows[1].pcExpressions[0].assignCut("?0??");
  EXPECT_EQ(MySip::getSipRoutingIndex("2000"), 0);
  EXPECT_EQ(MySip::getSipRoutingIndex("3000"), 1);
  EXPECT_EQ(MySip::getSipRoutingIndex("3100"), -1);
  iNumSipRoutingRecords = 0;
}

TEST_F(TextTest, DecimalsAreReadAsScanfReadsThemAndNeverOverflow) {
  const std::tuple<const char*, bool, int> cases[] = {
      {" \t12 INVITE", true, 12},
      {"-3", true, -3},
      {"+7x", true, 7},
      {"2147483647", true, 2147483647},
      {"2147483648", false, 0},
      {"-2147483648", true, -2147483647 - 1},
      {"-2147483649", false, 0},
      {"", false, 0},
      {"x1", false, 0},
      {"+-1", false, 0},
      {"- 1", false, 0},
      {"007", true, 7},
      {"99999999999999999999", false, 0},
      {"   ", false, 0},
  };
  for (const auto& [text, readable, expected] : cases) {
    int value = 0;
    EXPECT_EQ(MySip::readDecimal(text, value), readable) << text;
    EXPECT_EQ(value, expected) << text;
  }
}

TEST_F(TextTest, TagIsCutOutOfItsHeader) {
  const std::pair<const char*, const char*> cases[] = {
      {"<sip:a@b>;tag=abc", "abc"},
      {"<sip:a@b>;tag=abc;x=1", "abc"},
      {"<sip:a@b;tag=abc>", "abc"},
      {"sip:a@b; TAG=abc \r\nTo: c", "abc"},
      {"\"tag=x\" <sip:a@b>;tag=abc", "abc"},
      {"<sip:a@b>", ""},
      {"<sip:a@b>;tag=", ""},
      {"", ""},
  };
  for (const auto& [header, expected] : cases) {
    std::string_view tag;
    EXPECT_EQ(MySip::extractTag(header, tag), *expected != '\0') << header;
    EXPECT_EQ(tag, expected) << header;
  }
  EXPECT_EQ(MySip::bodyOf("A: 1\r\n\r\nx\r\n\r\ny"), "x\r\n\r\ny");
  EXPECT_EQ(MySip::bodyOf("A: 1\r\n"), "");
  EXPECT_EQ(MySip::contentLengthOf("Content-Length: -9\r\n\r\nxy"), 2);
}

}  // namespace
