// Troubles that only the log can show: calls that were refused or had no answer, registrations that fail.
#include "app/config/Log.h"
#include "common/Clock.h"
#include "sip/MySip.h"

namespace {

constexpr const char* kFunction = "MySip::reportTroubles";
constexpr std::int64_t kPatienceSeconds = 10;  // for the answer to a REGISTER or to its repetition
constexpr std::int64_t kReminderSeconds = 60;

}  // namespace

void MySip::reportTroubles() {
  if (troubles.iBusy > 0 || troubles.iUnavailable > 0)
    Log::warning(kFunction, "new calls refused: %d with 486, %d with 503\n", troubles.iBusy,
                 troubles.iUnavailable);
  if (troubles.iUnanswered > 0)
    Log::warning(
        kFunction,
        "calls given up after 60 seconds without any answer to the INVITE: %d, the last from %s to %s\n",
        troubles.iUnanswered, troubles.pcCaller.c_str(), troubles.pcDestination.c_str());
  troubles.iBusy = troubles.iUnavailable = troubles.iUnanswered = 0;
  reportRegistrations();
}

void MySip::reportRegistrations() {
  const std::int64_t now = Clock::steadyTime().tv_sec;
  int wanted = 0, missing = 0;
  const sPhone* first = nullptr;
  const auto count = [&](const sPhone& identity) {
    if (!identity.bShouldRegister) return;
    ++wanted;
    if (identity.bRegistered || now - identity.iUnregisteredSince < kPatienceSeconds) return;
    if (missing++ == 0) first = &identity;
  };
  if (bTrunkExists) count(sTrunk);
  for (int slot = 0; slot < iNumSlots; ++slot) count(phone(slot));

  const FixedText<16> pbx = ipOf(sProxyAddress);
  const int port = ntohs(sProxyAddress.sin_port);
  if (missing == 0) {
    if (troubles.iMissingTold)
      Log::info(kFunction, "all registrations with %s:%d are there again\n", pbx.c_str(), port);
    troubles.iMissingTold.reset();
    return;
  }
  if (troubles.iMissingTold && now - *troubles.iMissingTold < kReminderSeconds) return;
  troubles.iMissingTold = now;
  Log::warning(kFunction, "%d of %d registrations with %s:%d are missing, the first is %s\n", missing, wanted,
               pbx.c_str(), port, first->pcUserName.c_str());
}
