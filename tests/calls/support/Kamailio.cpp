#include "tests/calls/support/Kamailio.h"

#include "tests/calls/support/ScratchDirectory.h"
#include "tests/calls/support/SipProbe.h"
#include "tests/support/SipText.h"

namespace {

// Lines that begin with PBX are what the tests count. @NAME@ are filled in below.
constexpr const char* kConfiguration = R"(#!KAMAILIO
debug=1
log_stderror=yes
children=1
auto_aliases=no
disable_tcp=yes
loadmodule "tm.so"
loadmodule "sl.so"
loadmodule "rr.so"
loadmodule "pv.so"
loadmodule "xlog.so"
loadmodule "usrloc.so"
loadmodule "registrar.so"
loadmodule "auth.so"
loadmodule "textops.so"
loadmodule "siputils.so"
loadmodule "uac.so"
modparam("usrloc", "db_mode", 0)
modparam("registrar", "min_expires", 1)
modparam("auth", "nonce_expire", 300)
modparam("xlog", "force_color", 0)
modparam("uac", "restore_mode", "none")

request_route {
  if (is_method("REGISTER")) {
    if (!pv_www_authenticate("$fd", "@PASSWORD@", "0")) {
      xlog("L_ERR", "PBX challenged REGISTER $fU;\n");
      www_challenge("$fd", "@QOP@");
      exit;
    }
    if ($hdr(Expires) == "0") { xlog("L_ERR", "PBX withdrawn $tU;\n"); }
    else { xlog("L_ERR", "PBX registered $tU;\n"); }
    save("location");
    if (@NOTIFIES@ && $hdr(Expires) != "0") {
      $uac_req(callid) = "unasked-" + $ci;
      route(NOTIFY);
    }
    exit;
  }
  if (is_method("OPTIONS")) { sl_send_reply("200", "OK"); exit; }
  if (is_method("CANCEL")) { if (t_check_trans()) { t_relay(); } exit; }
  if (has_totag()) {
    loose_route();
    if (is_method("ACK") && $rU == $null && t_check_trans()) { exit; }
    t_relay();
    exit;
  }
  t_check_trans();
  if (is_method("ACK")) { exit; }
  if (!@AUTHENTICATE@("$fd", "@PASSWORD@", "0")) {
    xlog("L_ERR", "PBX challenged $rm $fU;\n");
    @CHALLENGE@("$fd", "@QOP@");
    exit;
  }
  consume_credentials();
  if (is_method("SUBSCRIBE")) {
    append_to_reply("Expires: $hdr(Expires)\r\n");
    sl_send_reply("200", "OK");
    $uac_req(callid) = $ci;
    route(NOTIFY);
    exit;
  }
  record_route();
  if (!($fU =~ "^@PREFIX@")) { $ru = "sip:@TRUNK@@127.0.0.1"; }
  if (!lookup("location")) { sl_send_reply("404", "Not Found"); exit; }
  t_relay();
}

route[NOTIFY] {
  $uac_req(method) = "NOTIFY";
  $uac_req(ruri) = $(ct{nameaddr.uri});
  $uac_req(furi) = "sip:" + $fU + "@127.0.0.1";
  $uac_req(turi) = "sip:" + $fU + "@127.0.0.1";
  $uac_req(hdrs) = "Event: message-summary\r\nSubscription-State: active\r\nContact: <sip:127.0.0.1:@PORT@>\r\nContent-Type: application/simple-message-summary\r\n";
  $uac_req(body) = "Messages-Waiting: yes\r\n";
  $uac_req(evroute) = 1;
  uac_req_send();
}

event_route[uac:reply] { xlog("L_ERR", "PBX told $uac_req(evcode);\n"); }
)";

}  // namespace

Kamailio::Kamailio(const std::filesystem::path& directory, const PbxSetup& setup) : sipPort(setup.port) {
  const std::filesystem::path home = directory / "pbx";
  std::filesystem::create_directories(home);
  std::string text = kConfiguration;
  const std::string kind = setup.inviteBy401 ? "www" : "proxy";
  text = sip_text::replaced(text, "@PASSWORD@", setup.password);
  text = sip_text::replaced(text, "@QOP@", setup.qop ? "1" : "0");
  text = sip_text::replaced(text, "@AUTHENTICATE@", "pv_" + kind + "_authenticate");
  text = sip_text::replaced(text, "@CHALLENGE@", kind + "_challenge");
  text = sip_text::replaced(text, "@PREFIX@", setup.trunkPhonePrefix);
  text = sip_text::replaced(text, "@TRUNK@", setup.trunk);
  text = sip_text::replaced(text, "@NOTIFIES@", setup.notifies ? "1" : "0");
  text = sip_text::replaced(text, "@PORT@", std::to_string(setup.port));
  writeFile(home / "kamailio.cfg", text);
  program = std::make_unique<Process>(
      "kamailio",
      std::vector<std::string>{"-DD", "-E", "-f", (home / "kamailio.cfg").string(), "-l",
                               "udp:127.0.0.1:" + std::to_string(setup.port), "-n", "1", "-m", "64", "-M",
                               "8", "-w", home.string(), "-Y", home.string(), "-P", (home / "pid").string()},
      home / "output");
}

bool Kamailio::ready(Seconds limit) {
  return answersSip(*program, sipPort, limit);
}

int Kamailio::accepted(const std::string& user, const std::string& what) const {
  return program->outputCount("PBX " + what + " " + user + ";");
}

int Kamailio::challenges(const std::string& method, const std::string& user) const {
  return program->outputCount("PBX challenged " + method + " " + user + ";");
}
