// The stack on which a thread's fault handlers run: a fault may be that the thread's own stack is full. Every
// thread that wants faults reported needs one. The object may lie at the base of the thread's own stack,
// which an overflow, at the far end, leaves intact.
#pragma once

#include <array>
#include <csignal>
#include <cstddef>

// What a thread is started with: signals are for the main thread, which runs the handlers. Faults stay
// deliverable where they happen.
inline sigset_t signalsBlockedInThreads() {
  sigset_t signals;
  sigfillset(&signals);
  for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP}) sigdelset(&signals, fault);
  return signals;
}

class FaultStack {
 public:
  FaultStack() {
    stack_t stack{};
    stack.ss_sp = pcBytes.data();
    stack.ss_size = pcBytes.size();
    sigaltstack(&stack, nullptr);
  }
  ~FaultStack() {
    stack_t none{};
    none.ss_flags = SS_DISABLE;
    sigaltstack(&none, nullptr);
  }
  FaultStack(const FaultStack&) = delete;
  FaultStack& operator=(const FaultStack&) = delete;

 private:
  // The handlers use two log records of 2,600 bytes each, and the kernel saves up to 12 KB of registers. Not
  // touched, and so not in memory, before it is used.
  static constexpr std::size_t kBytes = 65'536;
  alignas(std::max_align_t) std::array<std::byte, kBytes> pcBytes;
};
