// A running Quorvel with ports and a directory of its own, for tests with real calls.
#pragma once

#include <gtest/gtest.h>
#include <initializer_list>
#include <iostream>
#include <memory>

#include "tests/calls/support/PortBlock.h"
#include "tests/calls/support/QuorvelProcess.h"
#include "tests/calls/support/ScratchDirectory.h"

class CallFixture : public ::testing::Test {
 protected:
  // Skips the test where one of the programs is not installed.
  static void needs(std::initializer_list<const char*> programs) {
    for (const char* program : programs)
      if (Process::find(program).empty()) GTEST_SKIP() << program << " is not installed";
  }

  void start(const Settings& settings = {}) {
    quorvel = std::make_unique<QuorvelProcess>(scratch.path(), ports, settings);
    ASSERT_TRUE(quorvel->ready()) << quorvel->log();
  }
  // Stops it, and shows what it has logged when something went wrong.
  void TearDown() override {
    if (quorvel == nullptr) return;
    if (quorvel->process().running()) {
      EXPECT_EQ(quorvel->stop(), 0);
    }
    if (HasFailure()) std::cerr << quorvel->log() << quorvel->process().output();
  }

  PortBlock ports;
  ScratchDirectory scratch;
  std::unique_ptr<QuorvelProcess> quorvel;
};
