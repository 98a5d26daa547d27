// quorvelctl beside a running process: what it says of it and what it makes it do.
#include <csignal>
#include <cstdlib>
#include <map>
#include <regex>

#include "tests/calls/support/ControlFixture.h"

namespace {

class ControlTest : public ControlFixture {
 protected:
  // A phone that registers, from the peer's port.
  std::string registration(const LoopbackPeer& phone, const std::string& user,
                           const std::string& headers = "") {
    const std::string name = "<sip:" + user + "@127.0.0.1>";
    return sip_text::build({.method = "REGISTER",
                            .uri = "sip:127.0.0.1",
                            .callId = "binding-" + user,
                            .viaPort = phone.port(),
                            .from = name + ";tag=phone",
                            .to = name,
                            .contact = "<sip:" + user + "@127.0.0.1:" + std::to_string(phone.port()) + ">",
                            .extraHeaders = "Expires: 60\r\n" + headers});
  }
  bool isBindingSaved(const std::string& user) {
    const std::filesystem::path saved = quorvel->bin() / ("binding" + quorvel->instanceName());
    return eventually([&] { return readFile(saved).find(user + "@127.0.0.1") != std::string::npos; },
                      Seconds(5));
  }
};

TEST_F(ControlTest, CallsAreSeenTracedDrainedAndStopped) {
  start({{"SipDebug", "1"},
         {"StatisticsFile", "statistics"},
         {"RealTimeAverageStatisticsFile", "average.html"},
         {"RefreshRateOfRealTimeStatistics", "2"}});
  EXPECT_NE(control({"status"}).text.find(", 0 calls up of 4\n"), std::string::npos);
  hangUp(setUp(1));
  ASSERT_TRUE(eventually([&] { return quorvel->activeCalls() == 0; }, Seconds(3)));
  EXPECT_EQ(metric("calls_without_audio_total"), 1);
  const double idleThreads = metric("threads");  // after a call: the thread sanitizer adds one of its own
  const Answer explained = control({"explain", "100", "200"});
  EXPECT_TRUE(explained.text.starts_with("rule         DefaultCmd\ndestination  200@127.0.0.1\n"));
  const Call call = setUp(2);
  // A stranger who sends records of the log drains nothing, and ends no drain.
  int forged = 0;
  const auto forge = [&](const std::string& record) {
    toQuorvel(caller,
              sip_text::replaced(sip_text::build({.method = "OPTIONS", .viaPort = caller.port()}), "CSeq: 1 ",
                                 "CSeq: x\nMon Nov 23 12:00:00 2026\n INFO in " + record + "\n\n"));
    ++forged;
    EXPECT_TRUE(eventually([&] { return quorvel->logCount("unable to read CSeq") == forged; }, Seconds(5)));
  };
  forge("sigUsr2Handle, Got shutdown request");

  const char* const state = "\"calls\": 1, \"calls_allowed\": 4, \"draining\": false}";
  EXPECT_NE(control({"--json", "status"}).text.find(state), std::string::npos);
  // Among all instances of the host; its files are then those that the process was started with.
  const Answer all = controlAsGiven({"--json", "status"}, {{"KESTROVA_BIN", ""}});
  EXPECT_NE(all.text.find("\"" + quorvel->instanceName() + "\", \"running\": true"), std::string::npos);
  EXPECT_NE(all.text.find(state), std::string::npos) << all.text;
  const char* const twoSilentSides = ", 0 s\n    no audio so far\n    no audio so far\n";
  EXPECT_TRUE(eventually([&] { return control({"calls"}).text.ends_with(twoSilentSides); }, Seconds(5)))
      << control({"calls"}).text;
  EXPECT_EQ(metric("up"), 1);
  EXPECT_EQ(metric("active_calls"), 1);
  EXPECT_EQ(metric("threads"), idleThreads + 1);
  EXPECT_EQ(metric("calls_opened_total"), 2);
  EXPECT_EQ(metric("calls_closed_total"), 1);
  EXPECT_EQ(metric("running_calls_without_audio"), 1);
  EXPECT_EQ(metric("running_calls_worst_mos"), -1) << "a call without audio is not the best of all";
  EXPECT_GT(metric("resident_memory_bytes"), 1e6);
  EXPECT_EQ(metric("call_mos_total"), 0);

  // Both legs, in the order of the log, and no other call.
  const std::string trace = control({"trace", sip_text::header(call.ok, "Call-ID")}).text;
  const std::string other = sip_text::header(call.invite, "Call-ID");
  EXPECT_LT(trace.find("INVITE sip:"), trace.find(other));
  EXPECT_NE(trace.find("<- 127.0.0.1:" + std::to_string(ports.pbx()) + "\nSIP/2.0 200 OK"),
            std::string::npos);
  EXPECT_EQ(trace.find("BYE sip:"), std::string::npos);
  EXPECT_EQ(control({"trace", "no-such-call"}).status, 1);

  EXPECT_EQ(control({"drain", "1"}).status, 1) << "a call is still up";
  forge("quorvel_main, Loading Quorvel version 1.6.56");
  EXPECT_NE(control({"status"}).text.find("draining"), std::string::npos);
  toQuorvel(caller, invite(3));
  EXPECT_TRUE(expect(caller, "SIP/2.0 503").starts_with("SIP/2.0 503"));
  EXPECT_TRUE(eventually(
      [&] { return control({"metrics"}).text.find("status=\"503\"} 1\n") != std::string::npos; }, Seconds(5)))
      << "what the process says of it is counted";
  hangUp(call);
  EXPECT_EQ(control({"stop", "5"}).status, 0);
  EXPECT_EQ(quorvel->process().wait(Seconds(1)), 0);
  EXPECT_EQ(control({"status"}).status, 1);
  EXPECT_EQ(control({"--json", "drain"}).text,
            "{\"error\": \"Quorvel instance " + quorvel->instanceName() + " is not running\"}\n");
  const Answer again = control({"stop"});
  EXPECT_EQ(again.status, 0) << "nothing is left to be stopped";
  EXPECT_NE(again.text.find("nothing to stop"), std::string::npos);
  EXPECT_EQ(metric("up"), 0);
}

// As the log of a process has it: a call that is redirected, and one that comes between.
TEST_F(ControlTest, TraceFollowsARedirectionAndShowsNoSecret) {
  const auto record = [](const char* what, const std::string& first, const std::string& id,
                         const std::string& more = "") {
    return std::string("Mon Nov 23 12:00:00 2026\n INFO in MySip::x, *** ") + what + " 127.0.0.1:5060:\n" +
           first + "\r\nCall-ID: " + id + "\r\nCSeq: 1 INVITE\r\n" + more + "\r\n\n";
  };
  const std::string invite = "INVITE sip:300@127.0.0.1 SIP/2.0";
  const char* const secrets =
      "Proxy-Authorization:\r\n Digest hush1\r\nAuthentication-Info: rspauth=hush2\r\n"
      "From: <sip:100:hush3@127.0.0.1:5060>\r\nRefer-To: <sip:a@b?Authorization=hush4&X=shown1>\r\n"
      "\r\na=crypto:1 AES inline:hush5\r\nk=clear:\rhush6\r\na=ptime:shown2\r\n";
  const std::filesystem::path log = scratch.path() / "errLog.1";
  writeFile(log, record("Got from", invite, "caller", secrets) + record("Sending to", invite, "first") +
                     record("Got from", "SIP/2.0 302 Moved", "first") +
                     record("Sending to", "ACK sip:300@127.0.0.1 SIP/2.0", "first") +
                     record("Sending to", invite, "second") + record("Got from", invite, "stranger") +
                     record("Sending to", "SIP/2.0 486 Busy", "stranger") +
                     record("Sending to", invite, "no leg") + record("Got from", "SIP/2.0 200 Ok", "second"));
  ASSERT_EQ(Process("gzip", {log.string()}, scratch.path() / "gzip.out").wait(Seconds(10)), 0);
  const std::string bin = scratch.path().string() + "/";
  const Answer trace =
      controlAsGiven({"trace", "second", "--log", log.string() + ".gz"}, {{"KESTROVA_BIN", bin}});
  std::string order;
  for (const char* id : {"caller", "first", "second", "stranger", "no leg"})
    order += std::to_string(occurrences(trace.text, std::string("Call-ID: ") + id + "\r"));
  EXPECT_EQ(order, "13200") << trace.text;
  EXPECT_EQ(trace.text.find("hush"), std::string::npos) << trace.text;
  EXPECT_EQ(occurrences(trace.text, "shown"), 2) << trace.text;
  // Torn, it is shown as far as it goes, or found wanting.
  const std::string packed = readFile(log.string() + ".gz");
  writeFile(log.string() + ".gz", packed.substr(0, packed.size() - 4));
  for (const char* id : {"second", "none"}) {
    const Answer torn = controlAsGiven({"trace", id, "--log", log.string() + ".gz"}, {{"KESTROVA_BIN", bin}});
    const bool isThere = torn.text.find("Call-ID: second") != std::string::npos;
    EXPECT_EQ(torn.status, isThere ? 0 : 1) << torn.text;
    EXPECT_EQ(isThere, torn.text.find("has no message of that Call-ID") == std::string::npos) << torn.text;
    EXPECT_EQ(occurrences(torn.text, ".gz cannot be unpacked to its end\n"), 1) << torn.text;
  }
}

// Records as a process cuts them: before, at and behind a message's end.
TEST_F(ControlTest, TraceSaysWhatTheLogHoldsNoMoreOf) {
  const std::string head = "*** Got from 127.0.0.1:5060:\n";
  const std::string start = "INVITE sip:a@b SIP/2.0\r\nCall-ID: long\r\n";
  std::string log, expected;
  const auto add = [&](const std::string& lines, std::size_t length, bool isCut) {
    log += "Mon Nov 23 12:00:00 2026\n INFO in MySip::x, " + (head + start + lines + "\n").substr(0, length) +
           "\n";
    expected += isCut ? 'x' : '-';
  };
  for (const char* const name : {"Content-Length: ", "l : ", "X: 1\r\nCONTENT-LENGTH:"}) {
    const std::string lines = std::string(name) + "10\r\n\r\nv=0\r\nt=0\r\n";
    const std::size_t whole = (head + start + lines).size();
    for (const std::size_t length : {whole - 11, whole - 10, whole - 1, whole, whole + 1})
      add(lines, length, length < whole);
  }
  add("l: 99999999999999999999\r\n\r\n", 1999, true);
  add("\r\n" + std::string(1900, 'x'), 1998, false);
  add("\r\n" + std::string(1999, 'x'), 1999, true);
  add("X: " + std::string(1999, 'x'), 1999, true);
  const std::filesystem::path path = scratch.path() / "errLog";
  writeFile(path, log);
  for (const bool isJson : {false, true}) {
    std::vector<std::string> words = {"trace", "long", "--log", path.string()};
    if (isJson) words.insert(words.begin(), "--json");
    const std::string text = controlAsGiven(words, {{"KESTROVA_BIN", scratch.path().string() + "/"}}).text;
    const std::regex pattern(isJson ? "\"cut\": (true|false), \"text\""
                                    : "\nINVITE |\\(the log holds no more of it\\)\n");
    std::string marks;
    for (std::sregex_iterator found(text.begin(), text.end(), pattern), end; found != end; ++found)
      if (isJson)
        marks += (*found)[1] == "true" ? 'x' : '-';
      else if (found->str()[0] == '\n')
        marks += '-';
      else
        marks.back() = 'x';
    EXPECT_EQ(marks, expected) << text;
  }
}

TEST_F(ControlTest, AProcessThatDoesNotAnswerIsGivenUp) {
  start();
  quorvel->process().signal(SIGSTOP);
  const Answer status = control({"status"});
  const Answer stop = control({"stop", "60"});  // far less than a minute, since it does not say what is up
  quorvel->process().signal(SIGCONT);
  EXPECT_EQ(status.status, 1);
  EXPECT_NE(status.text.find("does not answer SIGUSR1"), std::string::npos) << status.text;
  EXPECT_EQ(stop.status, 1);
  EXPECT_NE(stop.text.find("was told to end, but is still there after 10 seconds"), std::string::npos)
      << stop.text;
  EXPECT_EQ(quorvel->process().wait(Seconds(10)), 0) << "the interrupts have waited for it";
}

TEST_F(ControlTest, ExplainKnowsSlotsOfNamesAndLeavesBindingsAlone) {
  start({{"InviteShouldMatchPairPhoneName", "1"},
         {"PairPhonesName", "300;301;302;303;"},
         {"SipProxyArchitecture", "1"}});
  // A phone that has a slot registers through Quorvel.
  toQuorvel(caller, registration(caller, "301",
                                 "X-Name: \xC3\x84 \xFF \x1b[31m \x7F\xC2\x9B\r\n"
                                 "Authorization: Digest username=\"301\",\r\n response=\"0badc0de\"\r\n"));
  const std::string relayed = expect(callee, "REGISTER ");
  toQuorvel(callee,
            sip_text::respond(relayed, "200 OK", "pbx",
                              "Contact: " + sip_text::header(relayed, "Contact") + ";expires=60\r\n"));
  expect(caller, "SIP/2.0 200 ");
  const std::string trace = control({"trace", "binding-301"}).text;
  EXPECT_NE(trace.find(sip_text::header(relayed, "Call-ID")), std::string::npos) << trace;
  EXPECT_NE(trace.find("(masked)"), std::string::npos);
  EXPECT_NE(trace.find("X-Name: \xC3\x84 \\xff \\x1b[31m \\x7f\\xc2\\x9b\r\n"), std::string::npos)
      << "a stranger steers the terminal";
  EXPECT_EQ(trace.find("0badc0de"), std::string::npos) << trace;
  EXPECT_EQ(control({"trace", "--phone", "301"}).text, trace);
  EXPECT_NE(
      control({"--json", "trace", "binding-301"}).text.find("\xC3\x84 \\u00ff \\u001b[31m \\u007f\\u009b"),
      std::string::npos);

  std::map<std::filesystem::path, std::string> before;
  ASSERT_TRUE(isBindingSaved("301"));
  quorvel->process().signal(SIGSTOP);  // it saves its bindings itself
  for (const auto& entry : std::filesystem::directory_iterator(quorvel->bin()))
    before[entry] = readFile(entry);

  const Answer bound = control({"explain", "100", "301"});
  EXPECT_EQ(bound.status, 0) << bound.text;
  EXPECT_NE(
      bound.text.find("127.0.0.1:" + std::to_string(caller.port()) + ": a phone of that name is registered"),
      std::string::npos)
      << bound.text;
  EXPECT_EQ(control({"explain", "301", "100"}).status, 0);
  const Answer stranger = control({"explain", "100", "302"});
  EXPECT_EQ(stranger.status, 1);
  EXPECT_NE(stranger.text.find("refused with 486 Busy Here"), std::string::npos) << stranger.text;

  std::map<std::filesystem::path, std::string> after;
  for (const auto& entry : std::filesystem::directory_iterator(quorvel->bin()))
    after[entry] = readFile(entry);
  quorvel->process().signal(SIGCONT);
  EXPECT_EQ(before, after);
}

// Each kind of call is explained, then made: it must go where it was said to go.
TEST_F(ControlTest, ExplainSaysWhatBecomesOfACall) {
  LoopbackPeer routed(ports.phone(1)), bound(ports.phone(2));
  const std::map<int, LoopbackPeer*> peers{
      {callee.port(), &callee}, {routed.port(), &routed}, {bound.port(), &bound}};
  writeFile(scratch.path() / "routing.conf",
            "127.0.0.1::" + std::to_string(routed.port()) + "::4??@127.0.0.1;\n");
  start({{"CmdBasedOnCallerID", "7??@127.0.0.1=*##2;500@127.0.0.1=*##3"},
         {"CmdBasedOnDestination", "2??@127.0.0.1=301@127.0.0.1##1;24?@192.0.2.5=*##2"},
         {"SipUAIP", "192.0.2.5"},
         {"SipUAIPForBinding", "127.0.0.1"},
         {"DOSExpressions", "66?@127.0.0.1"},
         {"SipRoutingFile", "../routing.conf"},
         {"NumPhonesToAllocate", "16"},
         {"NumCallsToFilter", "7"},
         {"DefaultCmd", ""}});
  toQuorvel(bound, registration(bound, "500"));
  expect(bound, "SIP/2.0 200 ");
  ASSERT_TRUE(isBindingSaved("500"));

  struct Kind {
    const char* caller;
    const char* dialled;
    const char* said;
  };
  int number = 0;
  for (const auto& [by, dialled, said] :
       {Kind{"661", "200", "refused with 503 Service Unavailable: DOSExpressions bars the caller"},
        {"100", "555", "not answered: no rule matches and there is no DefaultCmd"},
        {"700", "555", "CmdBasedOnCallerID, rule 1"},
        {"100", "200", "CmdBasedOnDestination, rule 1 (2??@127.0.0.1)"},
        {"100", "200", "and 200@192.0.2.5 in To: (quorvelctl trace shows them)\nnot answered: no rule"},
        {"100", "240@192.0.2.5", "CmdBasedOnDestination, rule 2 (24?@192.0.2.5)"},
        {"700", "450", "the routing file names that destination"},
        {"700", "500", "a phone of that name is registered"},
        {"500", "500", "the phone of that name is passed over"}}) {
    const std::string explained = control({"explain", by, dialled}).text;
    EXPECT_NE(explained.find(said), std::string::npos) << explained;
    LoopbackPeer& from = std::string_view(by) == "500" ? bound : caller;
    const std::string message =
        sip_text::replaced(invite(++number), "sip:100@", std::string("sip:") + by + "@");
    const bool isWhole = std::string_view(dialled).find('@') != std::string_view::npos;
    from.sendTo(ports.sip(), sip_text::replaced(message, isWhole ? "sip:200@127.0.0.1" : "sip:200@",
                                                std::string("sip:") + dialled + (isWhole ? "" : "@")));
    const std::string likeliest = explained.substr(0, explained.find("\nbut with "));
    std::smatch hop;
    const std::regex where("destination  (\\S+)\n[^\n]*\nnext hop     127.0.0.1:(\\d+):");
    if (std::regex_search(likeliest, hop, where)) {
      expect(*peers.at(std::stoi(hop[2])), "INVITE sip:" + hop[1].str() + " ");
    } else if (explained.starts_with("refused with 503")) {
      expect(from, "SIP/2.0 503");
    } else {
      from.sendTo(ports.sip(),
                  sip_text::build({.method = "OPTIONS", .callId = "next", .viaPort = from.port()}));
      EXPECT_EQ(sip_text::header(expect(from, "SIP/2.0 200"), "Call-ID"), "next")
          << "the first answer at all";
    }
  }
  const Answer unnamed = controlAsGiven({"-c", quorvel->configuration().string(), "explain", "100", "500"},
                                        {{"KESTROVA_BIN", quorvel->bin().string() + "/"}});
  EXPECT_NE(unnamed.text.find("no phone counts as registered; each instance has its own"), std::string::npos)
      << unnamed.text;
  const std::string other = control({"explain", "100", "555", "200@127.0.0.1##7##Ann"}).text;
  EXPECT_NE(other.find("not answered: invalid cleaning type (7)"), std::string::npos) << other;
  EXPECT_NE(other.find("7 of 7 calls are up: now it refuses every new call with 486"), std::string::npos)
      << other;
  toQuorvel(caller, invite(++number));
  expect(caller, "SIP/2.0 486");
  EXPECT_NE(control({"explain", "100", "sip:555", "*##1##Ann"}).text.find("* stands for itself"),
            std::string::npos);
  EXPECT_EQ(control({"explain", "", "555"}).status, 2);
  const Answer wrong = control({"explain", "100", "--json"});
  EXPECT_EQ(wrong.status, 2);
  EXPECT_EQ(wrong.text, "{\"error\": \"wrong usage: see quorvelctl --help\"}\n");
  EXPECT_EQ(control({"stop"}).status, 0);
}

}  // namespace
