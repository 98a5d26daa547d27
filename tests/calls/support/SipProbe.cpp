#include "tests/calls/support/SipProbe.h"

#include "tests/support/LoopbackPeer.h"
#include "tests/support/SipText.h"

bool answersSip(Process& process, int port, Seconds limit) {
  LoopbackPeer asker;
  const std::string options = sip_text::build({.method = "OPTIONS", .viaPort = asker.port()});
  const auto answered = [&] {
    asker.sendTo(port, options);
    return asker.receive(std::chrono::milliseconds(50)).has_value();
  };
  return eventually([&] { return answered() || !process.running(); }, limit) && process.running();
}
