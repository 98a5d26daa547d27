#include <gtest/gtest.h>
#include <netdb.h>

#include "app/config/MyConfiguration.h"
#include "tests/support/TestInstallation.h"

namespace {

class AddressTest : public ::testing::Test {
 protected:
  // The stored text, or "failure".
  static std::string dotted(std::string_view value) {
    FixedText<16> out;
    return myConfiguration.validateAndGetDottedIPAddress(value, out) ? "failure" : out.c_str();
  }
  TestInstallation installation;
};

TEST_F(AddressTest, DottedAddressesStayAsTheyAreAndNamesAreResolved) {
  EXPECT_EQ(dotted("10.0.0.9"), "10.0.0.9");
  EXPECT_EQ(dotted("0.0.0.0"), "0.0.0.0");
  EXPECT_EQ(dotted("255.255.255.255"), "255.255.255.255");
  EXPECT_EQ(dotted("localhost"), "127.0.0.1");
  EXPECT_EQ(dotted(std::string_view("10.0.0.9:5060").substr(0, 8)), "10.0.0.9")
      << "the view ends, the text goes on";
  EXPECT_EQ(installation.log(), "");
}

// Spellings that the C library takes for addresses but that would not fit, or that carry more than the
// address.
TEST_F(AddressTest, OtherSpellingsAreWrittenOut) {
  EXPECT_EQ(dotted("10.0.0.9 "), "10.0.0.9");
  EXPECT_EQ(dotted("000000010.000000000.0000000000.0000000011"), "8.0.0.9");
}

TEST_F(AddressTest, WhatIsNeitherFailsWithTheResolversReason) {
  for (const std::string& value : {std::string("1.2.3.4.5"), std::string(300, 'h')}) {
    installation.clearLog();
    EXPECT_EQ(dotted(value), "failure");
    EXPECT_EQ(
        installation.logCount(" ERROR in MyConfiguration::validateAndGetDottedIPAddress, unable to locate "
                              "host (" +
                              value + "). Error: 1 - " + hstrerror(HOST_NOT_FOUND) + "\n"),
        1)
        << installation.log();
  }
}

}  // namespace
