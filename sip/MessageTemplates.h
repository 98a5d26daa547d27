// The messages that Quorvel originates, byte for byte. Each comment line names the values in the order of the
// "%s".
#pragma once

// Request-URI; one-time routing lines; our address, port, Via parameters, branch; From: quoted display name,
// name, tag; To: the same; Contact: user, address, port; Call-ID; CSeq; User-Agent; Allow; extra lines three
// times; body length and body.
inline constexpr char kInviteTemplate[] =
    "INVITE sip:%s SIP/2.0\r\n%sVia: SIP/2.0/UDP %s:%d%s;branch=%s\r\nFrom: %s <sip:%s>%s\r\nTo: %s "
    "<sip:%s>%s\r\n"
    "Contact: <sip:%s@%s:%d>\r\nCall-ID: %s\r\nCSeq: %d INVITE\r\nMax-Forwards: 70\r\n"
    "Content-Type: application/sdp\r\nUser-Agent: %s\r\nAllow: %s\r\n%s%s%sContent-Length: %d\r\n\r\n%s";

// First line; one-time routing lines; our address, port, Via parameters, branch; From; To; Contact; Call-ID;
// CSeq text; User-Agent; content length; tail.
inline constexpr char kRequestTemplate[] =
    "%s\r\n%sVia: SIP/2.0/UDP %s:%d%s;branch=%s\r\nFrom: %s <sip:%s>%s\r\nTo: %s <sip:%s>%s\r\n"
    "Contact: <sip:%s@%s:%d>\r\nCall-ID: %s\r\nCSeq: %s\r\nUser-Agent: %s\r\nContent-Length: %d%s";

// The same as an answer: Via value with our parameters, From is the peer, To is ourselves.
inline constexpr char kResponseTemplate[] =
    "%s\r\n%sVia: %s\r\nFrom: %s <sip:%s>%s\r\nTo: %s <sip:%s>%s\r\n"
    "Contact: <sip:%s@%s:%d>\r\nCall-ID: %s\r\nCSeq: %s\r\nUser-Agent: %s\r\nContent-Length: %d%s";

// Status line; routing lines; Via value with our parameters; From; To; Contact; Call-ID; CSeq; User-Agent;
// Allow; SDP length and SDP.
inline constexpr char kSdpAnswerTemplate[] =
    "SIP/2.0 %s\r\n%sVia: %s\r\nFrom: %s <sip:%s>%s\r\nTo: %s <sip:%s>%s\r\n"
    "Contact: <sip:%s@%s:%d>\r\nCall-ID: %s\r\nCSeq: %d INVITE\r\nContent-Type: application/sdp\r\n"
    "User-Agent: %s\r\nAllow: %s\r\nContent-Length: %d\r\n\r\n%s";

// Status; Via; From; To; Contact; Call-ID; CSeq; extra lines; User-Agent.
inline constexpr char kGeneralErrorTemplate[] =
    "SIP/2.0 %s\r\nVia: %s\r\nFrom: %s\r\nTo: %s\r\nContact: <sip:%s@%s:%d>\r\nCall-ID: %s\r\nCSeq: %s\r\n"
    "%sUser-Agent: %s\r\nContent-Length: 0\r\n\r\n";

// Via; From; To; Contact; Call-ID; CSeq; User-Agent; Allow.
inline constexpr char kOptionsAnswerTemplate[] =
    "SIP/2.0 200 Ok\r\nVia: %s\r\nFrom: %s\r\nTo: %s\r\nContact: <sip:%s@%s:%d>\r\nCall-ID: %s\r\nCSeq: "
    "%s\r\n"
    "User-Agent: %s\r\nAllow: %s\r\nContent-Length: 0\r\n\r\n";

// Domain; our address, port, Via parameters, branch; From: display name, user, domain, tag; To: display name,
// user, domain; Contact: display name, user, address, port; Call-ID; CSeq; expiry; User-Agent.
inline constexpr char kRegisterTemplate[] =
    "REGISTER sip:%s SIP/2.0\r\nVia: SIP/2.0/UDP %s:%d%s;branch=%s\r\nFrom: %s <sip:%s@%s>%s\r\n"
    "To: %s <sip:%s@%s>\r\nContact: \"%s\" <sip:%s@%s:%d>\r\nCall-ID: %s\r\nCSeq: %d REGISTER\r\nExpires: "
    "%d\r\n"
    "Max-Forwards: 70\r\nUser-Agent: %s\r\nContent-Length: 0\r\n\r\n";

// CSeq number and method; user, realm, nonce, response, URI. The first answers a 401, the second a 407.
inline constexpr char kAuthorizationTemplate[] =
    "CSeq: %d %s\r\nAuthorization: Digest "
    "username=\"%s\",realm=\"%s\",nonce=\"%s\",response=\"%s\",uri=\"%s\"\r\n";
inline constexpr char kProxyAuthorizationTemplate[] =
    "CSeq: %d %s\r\nProxy-Authorization: Digest "
    "username=\"%s\",realm=\"%s\",nonce=\"%s\",response=\"%s\",uri=\"%s\"\r\n";

// Status line; Via; From; To; Call-ID; CSeq number and method; User-Agent; Allow; the challenge's header
// line.
inline constexpr char kRelayedChallengeTemplate[] =
    "%s\r\nVia: %s\r\nFrom: %s\r\nTo: %s\r\nCall-ID: %s\r\nCSeq: %d %s\r\nUser-Agent: %s\r\nAllow: "
    "%s\r\n%s\r\n"
    "Content-Length: 0\r\n\r\n";

// ---- For bound phones ----

// REGISTER in a phone's place. Domain; our address, port, branch; From: display name, user, domain, tag; To:
// display name, user, domain; Contact: display name, user, address, port; Call-ID; CSeq; expiry; User-Agent;
// credentials line.
inline constexpr char kRelayedRegisterTemplate[] =
    "REGISTER sip:%s SIP/2.0\r\nVia: SIP/2.0/UDP %s:%d;rport;branch=%s\r\nFrom: %s <sip:%s@%s>%s\r\n"
    "To: %s <sip:%s@%s>\r\nContact: \"%s\" <sip:%s@%s:%d>\r\nCall-ID: %s\r\nCSeq: %d REGISTER\r\nExpires: "
    "%d\r\n"
    "Max-Forwards: 70\r\nUser-Agent: %s\r\n%.*sContent-Length: 0\r\n\r\n";

// SUBSCRIBE in a phone's place. Request line; our address, port, branch; From: display name, user, domain,
// tag; To; Contact: display name, user, address, port; Call-ID; CSeq; Event; Supported and Accept lines;
// expiry; User-Agent; credentials line.
inline constexpr char kRelayedSubscribeTemplate[] =
    "%s\r\nVia: SIP/2.0/UDP %s:%d;rport;branch=%s\r\nFrom: %s <sip:%s@%s>%s\r\nTo: %s\r\n"
    "Contact: \"%s\" <sip:%s@%s:%d>\r\nCall-ID: %s\r\nCSeq: %d SUBSCRIBE\r\nEvent: %.*s\r\n%.*s%.*s"
    "Expires: %d\r\nMax-Forwards: 70\r\nUser-Agent: %s\r\n%.*sContent-Length: 0\r\n\r\n";

// 200 for a phone's REGISTER or SUBSCRIBE. Via value with our parameters; From; To and our tag, if any;
// Contact; Call-ID; CSeq; expiry; User-Agent.
inline constexpr char kPhoneAnswerTemplate[] =
    "SIP/2.0 200 Ok\r\nVia: %s\r\nFrom: %s\r\nTo: %s%s\r\nContact: %s\r\nCall-ID: %s\r\nCSeq: %s\r\n"
    "Expires: %s\r\nUser-Agent: %s\r\nContent-Length: 0\r\n\r\n";

// The PBX's NOTIFY to a phone. Name; Via; From; To; Contact; Call-ID; CSeq number; User-Agent; Event,
// Subscription-State and Content-Type lines; content length; body.
inline constexpr char kPhoneNotifyTemplate[] =
    "NOTIFY sip:%s SIP/2.0\r\nVia: %s\r\nFrom: %s\r\nTo: %s\r\nContact: %s\r\nCall-ID: %s\r\n"
    "CSeq: %d NOTIFY\r\nUser-Agent: %s\r\n%s%s%sContent-Length: %d\r\n\r\n%.*s";

// The phone's answer to the PBX's NOTIFY. Status line; Via; From; To; Call-ID; CSeq; User-Agent.
inline constexpr char kNotifyAnswerTemplate[] =
    "%.*s\r\nVia: %s\r\nFrom: %s\r\nTo: %s\r\nCall-ID: %s\r\nCSeq: %s\r\nUser-Agent: %s\r\n"
    "Content-Length: 0\r\n\r\n";

// Tail of a message without body.
inline constexpr char kNoBody[] = "\r\n\r\n";
