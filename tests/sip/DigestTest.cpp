#include <gtest/gtest.h>
#include <string>

#include "sip/MD5.h"
#include "sip/MySip.h"

namespace {

TEST(DigestTest, Md5GivesThePublishedDigests) {
  const struct {
    const char* text;
    const char* digest;
  } cases[] = {
      // RFC 1321 appendix A.5
      {"", "d41d8cd98f00b204e9800998ecf8427e"},
      {"a", "0cc175b9c0f1b6a831c399e269772661"},
      {"abc", "900150983cd24fb0d6963f7d28e17f72"},
      {"message digest", "f96b697d7cb7938d525a2f31aaf161d0"},
      {"abcdefghijklmnopqrstuvwxyz", "c3fcd3d76192e4007dfb496cca67e13b"},
      {"ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789", "d174ab98d277d9f5a5611c2c9f419d9f"},
      {"12345678901234567890123456789012345678901234567890123456789012345678901234567890",
       "57edf4a22be3c955ac49da2e2107b67a"},
  };
  for (const auto& one : cases) EXPECT_EQ(MD5::hash(one.text), one.digest) << one.text;
}

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
