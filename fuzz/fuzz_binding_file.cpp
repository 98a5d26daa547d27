// A binding file of any content. The first byte chooses between the rest as it stands and a complete file of
// one to three zero records into which the rest is written piecewise: record, offset (three bytes), length,
// bytes. Whatever is loaded must be usable: looked up, expired, saved and loaded again unchanged.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "app/config/Settings.h"
#include "common/Clock.h"
#include "engine/Glob.h"
#include "fuzz/MemoryFile.h"
#include "fuzz/Require.h"
#include "sip/MySip.h"

namespace {

// An engine of which only the bindings are in use.
MySip& table() {
  static MySip sip;
  if (!sip.psBindings) {
    Glob::pcKestrovaBin.assignCut("/nonexistent/");
    sip.psBindings.reset(static_cast<sBinding*>(std::calloc(kMaxBindings, sizeof(sBinding))));
    sip.loadBindingFiles();
  }
  return sip;
}

void putAt(int file, const void* bytes, std::size_t length, std::size_t offset) {
  require(pwrite(file, bytes, length, static_cast<off_t>(offset)) == static_cast<ssize_t>(length));
}

// Only what is written takes memory: the rest of the file is a hole.
void writePatchedTable(int file, std::uint8_t flags, const std::uint8_t* data, std::size_t size) {
  const std::int32_t count = flags % 3 + 1;
  const std::int32_t trailer = 12345;
  putAt(file, &count, 4, 0);
  putAt(file, &trailer, 4, 4 + static_cast<std::size_t>(count) * sizeof(sBinding));
  while (size > 0) {
    const std::size_t record = takeNumber(data, size, 1) % static_cast<unsigned>(count);
    const std::size_t offset = takeNumber(data, size, 3) % sizeof(sBinding);
    const std::size_t length =
        std::min<std::size_t>({takeNumber(data, size, 1), size, sizeof(sBinding) - offset});
    putAt(file, data, length, 4 + record * sizeof(sBinding) + offset);
    data += length;
    size -= length;
  }
}

bool isTerminated(const char* text, std::size_t capacity) {
  return std::memchr(text, 0, capacity) != nullptr;
}

void checkRecord(sBinding& record) {
  require(record.iNumSubscriptions >= 0 && record.iNumSubscriptions <= kMaxSubscriptions);
  require(record.iLastMsgIndex >= 0 && record.iLastMsgIndex < kStoredMessages);
  require(isTerminated(record.pcBindingName.data(), 166) && isTerminated(record.pcPhoneVia.data(), 1000) &&
          isTerminated(record.pcPhoneViaParams.data(), 1000) &&
          isTerminated(record.pcPhoneContact.data(), 3000));
  for (sLastMsgData& stored : record.psLastMsgs) require(isTerminated(stored.pcMsg.data(), 3000));
  for (int entry = 0; entry < record.iNumSubscriptions; ++entry) {
    sSubscription& subscription = record.subscription(entry);
    require(isTerminated(subscription.pcPhoneCallID.data(), 100) &&
            isTerminated(subscription.pcNotifyContact.data(), 3000) &&
            isTerminated(subscription.pcNotifyBranch.data(), 41));
  }
}

void useTable(MySip& sip) {
  for (int binding = 0; binding < sip.iNumBindings; ++binding) {
    sBinding& record = sip.bindingAt(binding);
    checkRecord(record);
    const int found = sip.getBindingIndex(record.pcBindingName);
    require(found >= 0 && found <= binding);
    require(sip.doesAddressAppearInBindingTable(record.sBindingAddress));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  const std::uint8_t flags = *data++;
  --size;
  const bool asItStands = flags >= 240;
  MemoryFile file(data, asItStands ? size : 0);
  if (!asItStands) writePatchedTable(file.descriptor(), flags, data, size);

  MySip& sip = table();
  const bool loaded = sip.readBindingTable(file.path().c_str()) == 0;
  require(loaded || sip.iNumBindings == 0);
  useTable(sip);
  const int count = sip.iNumBindings;
  MemoryFile copy(nullptr, 0);
  require(sip.saveBindingTable(copy.path().c_str()) == 0);
  require(sip.readBindingTable(copy.path().c_str()) == 0 && sip.iNumBindings == count);
  useTable(sip);
  Clock::freezeAt(1'700'000'000);
  sip.cleanupExpiredBindingsAndSubscriptions();
  useTable(sip);
  return 0;
}
