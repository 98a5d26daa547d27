#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <thread>

#include "common/FixedText.h"
#include "common/Relaxed.h"

namespace {

TEST(FixedTextTest, RefusesWhatDoesNotFitAndKeepsTheOldText) {
  FixedText<5> text;
  EXPECT_TRUE(text.assign("abc"));
  EXPECT_FALSE(text.assign("abcde"));
  EXPECT_EQ(text, "abc");
  EXPECT_TRUE(text.append("d"));
  EXPECT_FALSE(text.append("e"));
  EXPECT_FALSE(text.appendFormat("%d", 7));
  EXPECT_EQ(text, "abcd");
  text.assignCut("0123456789");
  EXPECT_EQ(text, "0123");
  EXPECT_FALSE(text.format("%05d", 1));
  EXPECT_TRUE(text.empty());
}

TEST(FixedTextTest, AssigningAPieceOfItselfKeepsThePiece) {
  FixedText<20> text;
  ASSERT_TRUE(text.assign(";tag=12345;x"));
  ASSERT_TRUE(text.assign(text.view().substr(5, 5)));
  EXPECT_EQ(text, "12345");
}

TEST(PublishedCounterTest, ReadsNothingUntilSomethingIsPublishedAndAfterAReset) {
  PublishedCounter counter;
  EXPECT_FALSE(counter.read().has_value());
  counter.publish(31);
  EXPECT_EQ(counter.read(), 31);
  counter.reset();
  EXPECT_FALSE(counter.read().has_value());
}

TEST(SharedTextTest, ReaderNeverSeesAMixtureOfTwoTexts) {
  SharedText<64> text;
  const std::string first(60, 'a');
  const std::string second(40, 'b');
  ASSERT_TRUE(text.assign(first));
  std::atomic<bool> stop{false};
  std::thread writer([&] {
    while (!stop) {
      EXPECT_TRUE(text.assign(second));
      EXPECT_TRUE(text.assign(first));
    }
  });
  for (int i = 0; i < 300; ++i) {
    const FixedText<64> copy = text.load();
    ASSERT_TRUE(copy == first || copy == second) << copy.c_str();
  }
  stop = true;
  writer.join();
}

}  // namespace
