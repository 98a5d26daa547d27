#include <gtest/gtest.h>
#include <string>

#include "sip/MD5.h"
#include "sip/MySip.h"

namespace {

// The digest of all the digests of 0 to 300 characters, from an independent implementation: one wrong length,
// around a block's end for example, changes it.
TEST(DigestTest, Md5IsRightForEveryLengthAcrossBlockEnds) {
  std::string text;
  std::string digests;
  for (int length = 0; length <= 300; ++length) {
    digests += MD5::hash(text).view();
    text += static_cast<char>('!' + length % 90);
  }
  EXPECT_EQ(MD5::hash(digests), "1aae1a8eb8905d2e8492fe3666c2e899");
}

TEST(DigestTest, Md5DoesNotDependOnHowTheTextIsCut) {
  const std::string text(200, 'q');
  const MD5::HexDigest whole = MD5::hash(text);
  for (std::size_t cut = 0; cut <= text.size(); ++cut)
    ASSERT_EQ(MD5::hash({text.substr(0, cut), text.substr(cut)}), whole) << cut;
}

TEST(DigestTest, ResponseAgreesWithAnIndependentOneAlsoForTheLongestTexts) {
  EXPECT_EQ(MySip::prepareDigestResponse("bob", "biloxi.example", "zanzibar", "INVITE",
                                         "sip:bob@biloxi.example", "dcd98b7102dd2f0e8b11d0f600bfb0c093"),
            "9d9bfe43c8062ce3ca739ff0272ac862");
  EXPECT_EQ(MySip::prepareDigestResponse(std::string(99, 'u'), std::string(255, 'r'), std::string(19, 'p'),
                                         "REGISTER", "sip:" + std::string(195, 'h'), std::string(255, 'n')),
            "2d55c0b52ac2e352a8a29df69cb66cf9");
}

}  // namespace
