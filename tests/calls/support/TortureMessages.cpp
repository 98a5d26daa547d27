#include "tests/calls/support/TortureMessages.h"

#include "tests/calls/support/ScratchDirectory.h"

namespace {

// #SDP# is the offer of most messages, #LENGTH# the length of what follows the empty line; #A*n# stands for n
// times A.
constexpr std::string_view kOffer =
    "v=0\no=mhandley 29739 7272939 IN IP4 192.0.2.3\ns=-\nc=IN IP4 192.0.2.4\nt=0 0\n"
    "m=audio 49217 RTP/AVP 0 12\nm=video 3227 RTP/AVP 31\na=rtpmap:31 LPC\n";

std::string withPlaces(std::string text) {
  std::string result;
  for (std::size_t at = 0; at < text.size(); ++at) {
    const std::size_t end = text[at] == '#' ? text.find('#', at + 1) : std::string::npos;
    const std::string place = end == std::string::npos ? "" : text.substr(at + 1, end - at - 1);
    if (place == "SDP") {
      result += kOffer;
    } else if (place == "LENGTH") {
      result += "#LENGTH#";
    } else if (const std::size_t star = place.find('*'); star != std::string::npos && star > 0) {
      for (int n = std::stoi(place.substr(star + 1)); n > 0; --n) result += place.substr(0, star);
    } else {
      result += text[at];
      continue;
    }
    at = end;
  }
  return result;
}

}  // namespace

std::string wireText(const TortureMessage& message) {
  std::string wire;
  for (const char character : withPlaces(std::string(message.text))) {
    if (character == '\n' && !wire.ends_with('\r')) wire += '\r';
    wire += character;
  }
  const std::size_t place = wire.find("#LENGTH#");
  const std::size_t body = wire.find("\r\n\r\n");
  if (place != std::string::npos && body != std::string::npos)
    wire.replace(place, 8, std::to_string(wire.size() - body - 4));
  return wire;
}

// The messages of RFC 4475, section by section.
const std::vector<TortureMessage>& tortureMessages() {
  using namespace std::string_view_literals;
  static const std::vector<TortureMessage> messages = {
      // ---- 3.1.1 Valid messages ----
      {"ShortTortuousInvite",
       "INVITE sip:vivekg@chair-dnrc.example.com;unknownparam SIP/2.0\nTO :\n "
       "sip:vivekg@chair-dnrc.example.com ;   tag "
       "   = 1918181833n\nfrom   : \"J Rosenberg \\\\\\\"\"       <sip:jdrosen@example.com>\n  ;\n  tag = "
       "98asjd8\nMaX-fOrWaRdS: 0068\nCall-ID: wsinv.ndaksdj@192.0.2.1\nContent-Length   : #LENGTH#\ncseq: "
       "0009\n  "
       "INVITE\nVia  : SIP  /   2.0\n /UDP\n    192.0.2.2;branch=390skdjuw\ns :\nNewFangledHeader:   "
       "newfangled value\n "
       "continued newfangled value\nUnknownHeaderWithUnusualValue: ;;,,;;,;\nContent-Type: "
       "application/sdp\nRoute:\n <sip:services.example.com;lr;unknownwith=value;unknown-no-value>\nv:  SIP  "
       "/ 2.0  / "
       "TCP     spindle.example.com   ;\n  branch  =   z9hG4bK9ikj8  ,\n SIP  /    2.0   / UDP  "
       "192.168.255.111   ; "
       "branch=\n z9hG4bK30239\nm:\"Quoted string \\\"\\\"\" <sip:jdrosen@example.com> ; newparam =\n      "
       "newvalue ;\n  "
       "secondparam ; q = 0.33\n\n#SDP#"sv},
      {"UnusualMethodCharacters",
       "!interesting-Method0123456789_*+`.%indeed'~ "
       "sip:1_unusual.URI~(to-be!sure)&isn't+it$/crazy?,/"
       ";;*:&it+has=1,weird!*pas$wo~d_too.(doesn't-it)@example.com "
       "SIP/2.0\nVia: SIP/2.0/TCP host1.example.com;branch=z9hG4bK-.!%66*_+`'~\nTo: \"BEL:\\\x07 NUL:\\\x01 "
       "DEL:\\\x7f\" "
       "<sip:1_unusual.URI~(to-be!sure)&isn't+it$/crazy?,/;;*@example.com>\nFrom: token1~` token2'+_ "
       "token3*%!.- "
       "<sip:mundane@example.com>;fromParam''~+*_!.-%=\"\xD1\x80\xD0\xB0\xD0\xB1\xD0\xBE\xD1\x82\";tag=_"
       "token~1'+`*%!-.\n"
       "Call-ID: intmeth.word%ZK-!.*_+'@word`~)(><:\\/\"][?}{\nCSeq: 139122385 "
       "!interesting-Method0123456789_*+`.%indeed'~\nMax-Forwards: 255\nextensionHeader-!.%*+_`'~:"
       "\xEF\xBB\xBF\xE5\xA4\xA7\xE5\x81\x9C\xE9\x9B\xBB\nContent-Length: 0\n\n"sv},
      {"EscapedUri",
       "INVITE sip:sips%3Auser%40example.com@example.net SIP/2.0\nTo: sip:%75se%72@example.com\nFrom: "
       "<sip:I%20have%20spaces@example.net>;tag=938\nMax-Forwards: 87\ni: "
       "esc01.239409asdfakjkn23onasd0-3234\nCSeq: 234234 "
       "INVITE\nVia: SIP/2.0/UDP host5.example.net;branch=z9hG4bKkdjuw\nC: application/sdp\nContact:\n  "
       "<sip:cal%6Cer@host5.example.net;%6C%72;n%61me=v%61lue%25%34%31>\nContent-Length: #LENGTH#\n\n#SDP#"sv},
      {"EscapedNulls",
       "REGISTER sip:example.com SIP/2.0\nTo: sip:null-%00-null@example.com\nFrom: "
       "sip:null-%00-null@example.com;tag=839923423\nMax-Forwards: 70\nCall-ID: "
       "escnull.39203ndfvkjdasfkq3w4otrq0adsfdfnavd\n"
       "CSeq: 14398234 REGISTER\nVia: SIP/2.0/UDP host5.example.com;branch=z9hG4bKkdjuw\nContact: "
       "<sip:%00@host5.example.com>\n"
       "Contact: <sip:%00%00@host5.example.com>\nL:0\n\n"sv},
      {"PercentThatIsNoEscape",
       "RE%47IST%45R sip:registrar.example.com SIP/2.0\nTo: \"%Z%45\" <sip:resource@example.com>\nFrom: "
       "\"%Z%45\" "
       "<sip:resource@example.com>;tag=f232jadfj23\nCall-ID: "
       "esc02.asdfnqwo34rq23i34jrjasdcnl23nrlknsdf\nVia: SIP/2.0/TCP "
       "host.example.com;branch=z9hG4bK209%fzsnel234\nCSeq: 29344 RE%47IST%45R\nMax-Forwards: 70\nContact: "
       "<sip:alias1@host1.example.com>\nC%6Fntact: <sip:alias2@host2.example.com>\nContact: "
       "<sip:alias3@host3.example.com>\nl: 0\n\n"sv},
      {"NoSpaceBeforeAngleBracket",
       "OPTIONS sip:user@example.com SIP/2.0\nTo: sip:user@example.com\nFrom: "
       "caller<sip:caller@example.com>;tag=323\n"
       "Max-Forwards: 70\nCall-ID: lwsdisp.1234abcd@funky.example.com\nCSeq: 60 OPTIONS\nVia: SIP/2.0/UDP "
       "funky.example.com;branch=z9hG4bKkdjuw\nl: 0\n\n"sv},
      {"LongValues",
       "INVITE sip:user@example.com SIP/2.0\nTo: \"I have a user name of #extreme*10# "
       "proportion\"<sip:user@example.com:6000;"
       "unknownparam1=very#long*20#value;longparam#name*25#=shortvalue;very#long*25#ParameterNameWithNoValue>"
       "\nF: sip:#amazinglylongcallername*5#@example.net;tag=12#982*50#424;unknownheaderparam#name*20#="
       "unknowheaderparam#value*15#;unknown"
       "Valueless#paramname*10#\nCall-ID: longreq.one#really*20#longcallid\nCSeq: 3882340 "
       "INVITE\nUnknown-#Long*20#-Name: "
       "unknown-#long*20#-value; unknown-#long*20#-parameter-name = unknown-#long*20#-parameter-value\nVia: "
       "SIP/2.0/TCP "
       "sip33.example.com\nv: SIP/2.0/TCP sip32.example.com\nV: SIP/2.0/TCP sip31.example.com\nVia: "
       "SIP/2.0/TCP "
       "sip30.example.com\nViA: SIP/2.0/TCP sip29.example.com\nVIa: SIP/2.0/TCP sip28.example.com\nVIA: "
       "SIP/2.0/TCP "
       "sip27.example.com\nvia: SIP/2.0/TCP sip26.example.com\nviA: SIP/2.0/TCP sip25.example.com\nVia: "
       "SIP/2.0/TCP "
       "host1.example.com;received=192.0.2.5;branch=very#long*50#branchvalue\nMax-Forwards: 70\nContact: "
       "<sip:#amazinglylongcallername*5#@host5.example.net>\nContent-Type: application/sdp\nl: #LENGTH#\n\n#SDP#"sv},
      {"TwoRequestsInOneDatagram",
       "REGISTER sip:example.com SIP/2.0\nTo: sip:j.user@example.com\nFrom: "
       "sip:j.user@example.com;tag=43251j3j324\n"
       "Max-Forwards: 8\nI: dblreq.0ha0isndaksdj99sdfafnl3lk233412\nContact: "
       "sip:j.user@host.example.com\nCSeq: 8 REGISTER\n"
       "Via: SIP/2.0/UDP 192.0.2.125;branch=z9hG4bKkdjuw23492\nContent-Length: 0\n\n\nINVITE "
       "sip:joe@example.com SIP/2.0\nt: "
       "sip:joe@example.com\nFrom: sip:caller@example.net;tag=141334\nMax-Forwards: 8\nCall-ID: "
       "dblreq.0ha0isnda977644900765@192.0.2.15\nCSeq: 8 INVITE\nVia: SIP/2.0/UDP "
       "192.0.2.15;branch=z9hG4bKkdjuw380234\n"
       "Content-Type: application/sdp\nContent-Length: 150\n\n#SDP#"sv},
      {"SemicolonsInUser",
       "OPTIONS sip:user;par=u%40example.net@example.com SIP/2.0\nTo: sip:j_user@example.com\nFrom: "
       "sip:caller@example.org;tag=33242\nMax-Forwards: 3\nCall-ID: semiuri.0ha0isndaksdj\nCSeq: 8 "
       "OPTIONS\nAccept: "
       "application/sdp, application/pkcs7-mime,\n        multipart/mixed, multipart/signed,\n        "
       "message/sip, "
       "message/sipfrag\nVia: SIP/2.0/UDP 192.0.2.1;branch=z9hG4bKkdjuw\nl: 0\n\n"sv},
      {"ManyTransports",
       "OPTIONS sip:user@example.com SIP/2.0\nTo: sip:user@example.com\nFrom: "
       "<sip:caller@example.com>;tag=323\n"
       "Max-Forwards: 70\nCall-ID:  transports.kijh4akdnaqjkwendsasfdj\nAccept: application/sdp\nCSeq: 60 "
       "OPTIONS\nVia: "
       "SIP/2.0/UDP t1.example.com;branch=z9hG4bKkdjuw\nVia: SIP/2.0/SCTP "
       "t2.example.com;branch=z9hG4bKklasjdhf\nVia: "
       "SIP/2.0/TLS t3.example.com;branch=z9hG4bK2980unddj\nVia: SIP/2.0/UNKNOWN "
       "t4.example.com;branch=z9hG4bKasd0f3en\nVia: "
       "SIP/2.0/TCP t5.example.com;branch=z9hG4bK0a9idfnee\nl: 0\n\n"sv},
      {"MultipartBody",
       "MESSAGE sip:kumiko@example.org SIP/2.0\nVia: SIP/2.0/UDP "
       "127.0.0.1:5070;branch=z9hG4bK-d87543-4dade06d0bdb11ee-1--"
       "d87543-;rport\nMax-Forwards: 70\nRoute: <sip:127.0.0.1:5080>\nTo: <sip:kumiko@example.org>\nFrom: "
       "<sip:fluffy@example.com>;tag=2fb0dcc9\nCall-ID: "
       "mpart01.3d9485ad0c49859b@Zmx1ZmZ5LW1hYy0xNi5sb2NhbA..\nCSeq: 1 "
       "MESSAGE\nContent-Transfer-Encoding: binary\nContent-Type: "
       "multipart/mixed;boundary=7a9cbec02ceef655\nContent-Length: "
       "#LENGTH#\n\n--7a9cbec02ceef655\nContent-Type: text/plain\nContent-Transfer-Encoding: "
       "binary\n\nHello\n"
       "--7a9cbec02ceef655\nContent-Type: application/octet-stream\nContent-Transfer-Encoding: "
       "binary\n\n\x30\x82\x01\x52\x06"
       "\x09\x2A\x86\x48\x00\xFF\x86\xF7\x0D\x01\n--7a9cbec02ceef655--"sv},
      {"UnusualReason",
       "SIP/2.0 200 = 2**3 * 5**2 \xD0\xBD\xD0\xBE \xD1\x81\xD1\x82\xD0\xBE \xD0\xB4\xD0\xB5\xD0\xB2\xD1\x8F "
       "- "
       "\xD0\xBF\xD1\x80\xD0\xBE\nVia: SIP/2.0/UDP 192.0.2.198;branch=z9hG4bK1324923\nCall-ID: "
       "unreason.1234ksdfak3j2erwedfsASdf\nCSeq: 35 INVITE\nFrom: sip:user@example.com;tag=11141343\nTo: "
       "sip:user@example.edu;tag=2229\nContent-Length: #LENGTH#\nContent-Type: application/sdp\nContact: "
       "<sip:user@host198.example.com>\n\n#SDP#"sv},
      {"EmptyReason",
       "SIP/2.0 100 \nVia: SIP/2.0/UDP 192.0.2.105;branch=z9hG4bK2398ndaoe\nCall-ID: "
       "noreason.asndj203insdf99223ndf\nCSeq: 35 "
       "INVITE\nFrom: <sip:user@example.com>;tag=39ansfi3\nTo: "
       "<sip:user@example.edu>;tag=902jndnke3\nContent-Length: 0\n"
       "Contact: <sip:user@host105.example.com>\n\n"sv},

      // ---- 3.1.2 Invalid messages ----
      {"ExtraSeparators",
       "INVITE sip:user@example.com SIP/2.0\nTo: sip:j.user@example.com\nFrom: "
       "sip:caller@example.net;tag=134161461246\n"
       "Max-Forwards: 7\nCall-ID: badinv01.0ha0isndaksdjasdf3234nas\nCSeq: 8 INVITE\nVia: SIP/2.0/UDP "
       "192.0.2.15;;,;,,\n"
       "Contact: \"Joe\" <sip:joe@example.org>;;;;\nContent-Length: 152\nContent-Type: application/sdp\n\n#SDP#"sv},
      {"ContentLengthTooLarge",
       "INVITE sip:user@example.com SIP/2.0\nMax-Forwards: 80\nTo: sip:j.user@example.com\nFrom: "
       "sip:caller@example.net;tag=93942939o2\nContact: <sip:caller@hungry.example.net>\nCall-ID: "
       "clerr.0ha0isndaksdjweiafasdk3"
       "\nCSeq: 8 INVITE\nVia: SIP/2.0/UDP host5.example.com;branch=z9hG4bK-39234-23523\nContent-Type: "
       "application/sdp\n"
       "Content-Length: 9999\n\n#SDP#"sv},
      {"ContentLengthNegative",
       "INVITE sip:user@example.com SIP/2.0\nMax-Forwards: 254\nTo: sip:j.user@example.com\nFrom: "
       "sip:caller@example.net;tag=32394234\nCall-ID: ncl.0ha0isndaksdj2193423r542w35\nCSeq: 0 INVITE\nVia: "
       "SIP/2.0/UDP "
       "192.0.2.53;branch=z9hG4bKkdjuw\nContact: <sip:caller@example53.example.net>\nContent-Type: "
       "application/sdp\n"
       "Content-Length: -999\n\n#SDP#"sv},
      {"RequestScalarsTooLarge",
       "REGISTER sip:example.com SIP/2.0\nVia: SIP/2.0/TCP host129.example.com;branch=z9hG4bK342sdfoi3\nTo: "
       "<sip:user@example.com>\nFrom: <sip:user@example.com>;tag=239232jh3\nCSeq: 36893488147419103232 "
       "REGISTER\nCall-ID: "
       "scalar02.23o0pd9vanlq3wnrlnewofjas9ui32\nMax-Forwards: 300\nExpires: 1#0*100#\nContact: "
       "<sip:user@host129.example.com>\n  ;expires=280297596632815\nContent-Length: 0\n\n"sv},
      {"ResponseScalarsTooLarge",
       "SIP/2.0 503 Service Unavailable\nVia: SIP/2.0/TCP "
       "host129.example.com;branch=z9hG4bKzzxdiwo34sw;received=192.0.2.129\n"
       "To: <sip:user@example.com>\nFrom: <sip:other@example.net>;tag=2easdjfejw\nCSeq: "
       "9292394834772304023312 OPTIONS\n"
       "Call-ID: scalarlg.noase0of0234hn2qofoaf0232aewf2394r\nRetry-After: "
       "949302838503028349304023988\nWarning: 1812 overture "
       "\"In Progress\"\nContent-Length: 0\n\n"sv},
      {"UnterminatedQuote",
       "INVITE sip:user@example.com SIP/2.0\nTo: \"Mr. J. User <sip:j.user@example.com>\nFrom: "
       "sip:caller@example.net;tag=93334\nMax-Forwards: 10\nCall-ID: quotbal.aksdj\nContact: "
       "<sip:caller@host59.example.net>\n"
       "CSeq: 8 INVITE\nVia: SIP/2.0/UDP 192.0.2.59:5050;branch=z9hG4bKkdjuw39234\nContent-Type: "
       "application/sdp\n"
       "Content-Length: #LENGTH#\n\n#SDP#"sv},
      {"BracketedRequestUri",
       "INVITE <sip:user@example.com> SIP/2.0\nTo: sip:user@example.com\nFrom: "
       "sip:caller@example.net;tag=39291\nMax-Forwards: "
       "23\nCall-ID: ltgtruri.1@192.0.2.5\nCSeq: 1 INVITE\nVia: SIP/2.0/UDP 192.0.2.5\nContact: "
       "<sip:caller@host5.example.net>"
       "\nContent-Type: application/sdp\nContent-Length: #LENGTH#\n\n#SDP#"sv},
      {"SpaceInRequestUri",
       "INVITE sip:user@example.com; lr SIP/2.0\nTo: sip:user@example.com;tag=3xfe-9921883-z9f\nFrom: "
       "sip:caller@example.net;tag=231413434\nMax-Forwards: 5\nCall-ID: "
       "lwsruri.asdfasdoeoi2323-asdfwrn23-asd834rk423\nCSeq: "
       "2130706432 INVITE\nVia: SIP/2.0/UDP 192.0.2.1:5060;branch=z9hG4bKkdjuw2395\nContact: "
       "<sip:caller@host1.example.net>\n"
       "Content-Type: application/sdp\nContent-Length: #LENGTH#\n\n#SDP#"sv},
      {"SpacesInStartLine",
       "INVITE  sip:user@example.com  SIP/2.0\nMax-Forwards: 8\nTo: sip:user@example.com\nFrom: "
       "sip:caller@example.net;tag=8814\nCall-ID: lwsstart.dfknq234oi243099adsdfnawe3@example.com\nCSeq: "
       "1893884 INVITE\nVia: "
       "SIP/2.0/UDP host1.example.com;branch=z9hG4bKkdjuw3923\nContact: "
       "<sip:caller@host1.example.net>\nContent-Type: "
       "application/sdp\nContent-Length: #LENGTH#\n\n#SDP#"sv},
      {"SpacesAtEndOfStartLine",
       "OPTIONS sip:remote-target@example.com SIP/2.0  \nVia: SIP/2.0/TCP "
       "host1.example.com;branch=z9hG4bK299342093\nTo: "
       "<sip:remote-target@example.com>\nFrom: <sip:local-resource@example.com>;tag=329429089\nCall-ID: "
       "trws.oicu34958239neffasdhr2345r\nAccept: application/sdp\nCSeq: 238923 OPTIONS\nMax-Forwards: 70\nContent-Length: 0\n\n"sv},
      {"EscapedHeadersInUri",
       "INVITE sip:user@example.com?Route=%3Csip:example.com%3E SIP/2.0\nTo: sip:user@example.com\nFrom: "
       "sip:caller@example.net;tag=341518\nMax-Forwards: 7\nContact: "
       "<sip:caller@host39923.example.net>\nCall-ID: "
       "escruri.23940-asdfhj-aje3br-234q098w-fawerh2q-h4n5\nCSeq: 149209342 INVITE\nVia: SIP/2.0/UDP "
       "host-of-the-hour.example.com;branch=z9hG4bKkdjuw\nContent-Type: application/sdp\nContent-Length: #LENGTH#\n\n#SDP#"sv},
      {"BadTimeZone",
       "INVITE sip:user@example.com SIP/2.0\nTo: sip:user@example.com\nFrom: "
       "sip:caller@example.net;tag=2234923\nMax-Forwards: "
       "70\nCall-ID: baddate.239423mnsadf3j23lj42--sedfnm234\nCSeq: 1392934 INVITE\nVia: SIP/2.0/UDP "
       "host.example.com;branch=z9hG4bKkdjuw\nDate: Fri, 01 Jan 2010 16:00:00 EST\nContact: "
       "<sip:caller@host5.example.net>\n"
       "Content-Type: application/sdp\nContent-Length: #LENGTH#\n\n#SDP#"sv},
      {"UnbracketedContact",
       "REGISTER sip:example.com SIP/2.0\nTo: sip:user@example.com\nFrom: "
       "sip:user@example.com;tag=998332\nMax-Forwards: 70\n"
       "Call-ID: regbadct.k345asrl3fdbv@10.0.0.1\nCSeq: 1 REGISTER\nVia: SIP/2.0/UDP "
       "135.180.130.133:5060;branch=z9hG4bKkdjuw\n"
       "Contact: sip:user@example.com?Route=%3Csip:sip.example.com%3E\nl: 0\n\n"sv},
      {"SpacesInAddrSpec",
       "OPTIONS sip:user@example.org SIP/2.0\nVia: SIP/2.0/UDP "
       "host4.example.com:5060;branch=z9hG4bKkdju43234\nMax-Forwards: "
       "70\nFrom: \"Bell, Alexander\" <sip:a.g.bell@example.com>;tag=433423\nTo: \"Watson, Thomas\" < "
       "sip:t.watson@example.org >\nCall-ID: badaspec.sdf0234n2nds0a099u23h3hnnw009cdkne3\nAccept: "
       "application/sdp\nCSeq: "
       "3923239 OPTIONS\nl: 0\n\n"sv},
      {"NonTokenDisplayName",
       "OPTIONS sip:t.watson@example.org SIP/2.0\nVia:     SIP/2.0/UDP "
       "c.example.com:5060;branch=z9hG4bKkdjuw\nMax-Forwards:   "
       "   70\nFrom:    Bell, Alexander <sip:a.g.bell@example.com>;tag=43\nTo:      Watson, Thomas "
       "<sip:t.watson@example.org>\nCall-ID: baddn.31415@c.example.com\nAccept: application/sdp\nCSeq:    "
       "3923239 OPTIONS\nl: "
       "0\n\n"sv},
      {"UnknownVersion",
       "OPTIONS sip:t.watson@example.org SIP/7.0\nVia:     SIP/7.0/UDP "
       "c.example.com;branch=z9hG4bKkdjuw\nMax-Forwards:     70\n"
       "From:    A. Bell <sip:a.g.bell@example.com>;tag=qweoiqpe\nTo:      T. Watson "
       "<sip:t.watson@example.org>\nCall-ID: "
       "badvers.31417@c.example.com\nCSeq:    1 OPTIONS\nl: 0\n\n"sv},
      {"MethodMismatch",
       "OPTIONS sip:user@example.com SIP/2.0\nTo: sip:j.user@example.com\nFrom: "
       "sip:caller@example.net;tag=34525\nMax-Forwards: "
       "6\nCall-ID: mismatch01.dj0234sxdfl3\nCSeq: 8 INVITE\nVia: SIP/2.0/UDP host.example.com;branch=z9hG4bKkdjuw\nl: 0\n\n"sv},
      {"UnknownMethodMismatch",
       "NEWMETHOD sip:user@example.com SIP/2.0\nTo: sip:j.user@example.com\nFrom: "
       "sip:caller@example.net;tag=34525\n"
       "Max-Forwards: 6\nCall-ID: mismatch02.dj0234sxdfl3\nCSeq: 8 INVITE\nContact: "
       "<sip:caller@host.example.net>\nVia: "
       "SIP/2.0/UDP host.example.net;branch=z9hG4bKkdjuw\nContent-Type: application/sdp\nl: #LENGTH#\n\n#SDP#"sv},
      {"StatusTooLarge",
       "SIP/2.0 4294967301 better not break the receiver\nVia: SIP/2.0/UDP "
       "192.0.2.105;branch=z9hG4bK2398ndaoe\nCall-ID: "
       "bigcode.asdof3uj203asdnf3429uasdhfas3ehjasdfas9i\nCSeq: 353494 INVITE\nFrom: "
       "<sip:user@example.com>;tag=39ansfi3\nTo: "
       "<sip:user@example.edu>;tag=902jndnke3\nContent-Length: 0\nContact: <sip:user@host105.example.com>\n\n"sv},

      // ---- 3.2 to 3.4 Transactions, applications, older phones ----
      {"MissingTransactionIdentifier",
       "OPTIONS sip:user@example.com SIP/2.0\nTo: sip:user@example.com\nFrom: "
       "sip:caller@example.org;tag=33242\nMax-Forwards: 3"
       "\nVia: SIP/2.0/UDP 192.0.2.1;branch=z9hG4bK\nAccept: application/sdp\nCall-ID: "
       "badbranch.sadonfo23i420jv0as0derf3j3n\n"
       "CSeq: 8 OPTIONS\nl: 0\n\n"sv},
      {"MissingHeaders",
       "INVITE sip:user@example.com SIP/2.0\nCSeq: 193942 INVITE\nVia: SIP/2.0/UDP "
       "192.0.2.95;branch=z9hG4bKkdj.insuf\nContent-Type: application/sdp\nl: #LENGTH#\n\n#SDP#"sv},
      {"UnknownScheme",
       "OPTIONS nobodyKnowsThisScheme:totallyopaquecontent SIP/2.0\nTo: sip:user@example.com\nFrom: "
       "sip:caller@example.net;tag=384\nMax-Forwards: 3\nCall-ID: unkscm.nasdfasser0q239nwsdfasdkl34\nCSeq: "
       "3923423 OPTIONS\n"
       "Via: SIP/2.0/TCP host9.example.com;branch=z9hG4bKkdjuw39234\nContent-Length: 0\n\n"sv},
      {"KnownButAtypicalScheme",
       "OPTIONS soap.beep://192.0.2.103:3002 SIP/2.0\nTo: sip:user@example.com\nFrom: "
       "sip:caller@example.net;tag=384\n"
       "Max-Forwards: 3\nCall-ID: novelsc.asdfasser0q239nwsdfasdkl34\nCSeq: 3923423 OPTIONS\nVia: "
       "SIP/2.0/TCP "
       "host9.example.com;branch=z9hG4bKkdjuw39234\nContent-Length: 0\n\n"sv},
      {"UnknownSchemesInHeaders",
       "REGISTER sip:example.com SIP/2.0\nTo: isbn:2983792873\nFrom: "
       "<http://www.example.com>;tag=3234233\nCall-ID: "
       "unksm2.daksdj@hyphenated-host.example.com\nCSeq: 234902 REGISTER\nMax-Forwards: 70\nVia: SIP/2.0/UDP "
       "192.0.2.21:5060;branch=z9hG4bKkdjuw\nContact: <name:John_Smith>\nl: 0\n\n"sv},
      {"UnknownExtensions",
       "OPTIONS sip:user@example.com SIP/2.0\nTo: sip:j_user@example.com\nFrom: "
       "sip:caller@example.net;tag=242etr\n"
       "Max-Forwards: 6\nCall-ID: bext01.0ha0isndaksdj\nRequire: nothingSupportsThis, "
       "nothingSupportsThisEither\nProxy-Require: "
       "noProxiesSupportThis, norDoAnyProxiesSupportThis\nCSeq: 8 OPTIONS\nVia: SIP/2.0/TLS "
       "fold-and-staple.example.com;branch="
       "z9hG4bKkdjuw\nContent-Length: 0\n\n"sv},
      {"UnknownContentType",
       "INVITE sip:user@example.com SIP/2.0\nContact: <sip:caller@host5.example.net>\nTo: "
       "sip:j.user@example.com\nFrom: "
       "sip:caller@example.net;tag=8392034\nMax-Forwards: 70\nCall-ID: "
       "invut.0ha0isndaksdjadsfij34n23d\nCSeq: 235448 INVITE\n"
       "Via: SIP/2.0/UDP somehost.example.com;branch=z9hG4bKkdjuw\nContent-Type: "
       "application/unknownformat\nContent-Length: "
       "40\n\n<audio>\n <pcmu port=\"443\"/>\n</audio>\n"sv},
      {"UnknownAuthorization",
       "REGISTER sip:example.com SIP/2.0\nTo: sip:j.user@example.com\nFrom: "
       "sip:j.user@example.com;tag=87321hj23128\n"
       "Max-Forwards: 8\nCall-ID: regaut01.0ha0isndaksdj\nCSeq: 9338 REGISTER\nVia: SIP/2.0/TCP "
       "192.0.2.253;branch=z9hG4bKkdjuw\nAuthorization: NoOneKnowsThisScheme opaque-data=here\nContent-Length:0\n\n"sv},
      {"RepeatedSingleHeaders",
       "INVITE sip:user@company.com SIP/2.0\nContact: <sip:caller@host25.example.net>\nVia: SIP/2.0/UDP "
       "192.0.2.25;branch=z9hG4bKkdjuw\nMax-Forwards: 70\nCSeq: 5 INVITE\nCall-ID: "
       "multi01.98asdh@192.0.2.1\nCSeq: 59 INVITE\n"
       "Call-ID: multi01.98asdh@192.0.2.2\nFrom: sip:caller@example.com;tag=3413415\nTo: "
       "sip:user@example.com\nTo: "
       "sip:other@example.net\nFrom: sip:caller@example.net;tag=2923420123\nContent-Type: "
       "application/sdp\nl: #LENGTH#\nContact: "
       "<sip:caller@host36.example.net>\nMax-Forwards: 5\n\n#SDP#"sv},
      {"TwoContentLengths",
       "OPTIONS sip:user@example.com SIP/2.0\nVia: SIP/2.0/UDP host5.example.net;branch=z9hG4bK293423\nTo: "
       "sip:user@example.com\n"
       "From: sip:other@example.net;tag=3923942\nCall-ID: mcl01.fhn2323orihawfdoa3o4r52o3irsdf\nCSeq: 15932 "
       "OPTIONS\n"
       "Content-Length: 13\nMax-Forwards: 60\nContent-Length: 5\nContent-Type: text/plain\n\nThere's no way "
       "to know how many "
       "octets are supposed to be here.\n"sv},
      {"ResponseWithBroadcastVia",
       "SIP/2.0 200 OK\nVia: SIP/2.0/UDP 192.0.2.198;branch=z9hG4bK1324923\nVia: SIP/2.0/UDP "
       "255.255.255.255;branch=z9hG4bK1saber23\nCall-ID: bcast.0384840201234ksdfak3j2erwedfsASdf\nCSeq: 35 "
       "INVITE\nFrom: "
       "sip:user@example.com;tag=11141343\nTo: sip:user@example.edu;tag=2229\nContent-Length: "
       "#LENGTH#\nContent-Type: "
       "application/sdp\nContact: <sip:user@host28.example.com>\n\n#SDP#"sv},
      {"MaxForwardsZero",
       "OPTIONS sip:user@example.com SIP/2.0\nTo: sip:user@example.com\nFrom: "
       "sip:caller@example.net;tag=3ghsd41\nCall-ID: "
       "zeromf.jfasdlfnm2o2l43r5u0asdfas\nCSeq: 39234321 OPTIONS\nVia: SIP/2.0/UDP "
       "host1.example.com;branch=z9hG4bKkdjuw2349i\n"
       "Max-Forwards: 0\nContent-Length: 0\n\n"sv},
      {"ContactHeaderParameter",
       "REGISTER sip:example.com SIP/2.0\nVia: SIP/2.0/UDP "
       "saturn.example.com:5060;branch=z9hG4bKkdjuw\nMax-Forwards: 70\nFrom: "
       "sip:watson@example.com;tag=DkfVgjkrtMwaerKKpe\nTo: sip:watson@example.com\nCall-ID: "
       "cparam01.70710@saturn.example.com\n"
       "CSeq: 2 REGISTER\nContact: sip:+19725552222@gw1.example.net;unknownparam\nl: 0\n\n"sv},
      {"ContactUriParameter",
       "REGISTER sip:example.com SIP/2.0\nVia: SIP/2.0/UDP "
       "saturn.example.com:5060;branch=z9hG4bKkdjuw\nMax-Forwards: 70\nFrom: "
       "sip:watson@example.com;tag=838293\nTo: sip:watson@example.com\nCall-ID: "
       "cparam02.70710@saturn.example.com\nCSeq: 3 "
       "REGISTER\nContact: <sip:+19725552222@gw1.example.net;unknownparam>\nl: 0\n\n"sv},
      {"ContactWithEscapedRoute",
       "REGISTER sip:example.com SIP/2.0\nTo: sip:user@example.com\nFrom: "
       "sip:user@example.com;tag=8\nMax-Forwards: 70\nCall-ID: "
       "regescrt.k345asrl3fdbv@192.0.2.1\nCSeq: 14398234 REGISTER\nVia: SIP/2.0/UDP "
       "host5.example.com;branch=z9hG4bKkdjuw\nM: "
       "<sip:user@example.com?Route=%3Csip:sip.example.com%3E>\nL:0\n\n"sv},
      {"UnacceptableAccept",
       "INVITE sip:user@example.com SIP/2.0\nTo: sip:j_user@example.com\nContact: "
       "<sip:caller@host15.example.net>\nFrom: "
       "sip:caller@example.net;tag=234\nMax-Forwards: 5\nCall-ID: sdp01.ndaksdj9342dasdd\nAccept: "
       "text/nobodyKnowsThis\nCSeq: 8 "
       "INVITE\nVia: SIP/2.0/UDP 192.0.2.15;branch=z9hG4bKkdjuw\nContent-Length: #LENGTH#\nContent-Type: "
       "application/sdp\n\n"
       "#SDP#"sv},
      {"OlderSyntax",
       "INVITE sip:UserB@example.com SIP/2.0\nVia: SIP/2.0/UDP iftgw.example.com\nFrom: "
       "<sip:+13035551111@ift.client.example.net;"
       "user=phone>\nRecord-Route: <sip:UserB@example.com;maddr=ss1.example.com>\nTo: "
       "sip:+16505552222@ss1.example.net;"
       "user=phone\nCall-ID: inv2543.1717@ift.client.example.com\nCSeq: 56 INVITE\nContent-Type: application/sdp\n\n#SDP#"sv},
  };
  return messages;
}
