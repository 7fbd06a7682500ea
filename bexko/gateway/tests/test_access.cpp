#include <bexko/gateway/access.h>

#include <gtest/gtest.h>

namespace bexko {
namespace gateway {
namespace {

struct AddressCase {
  const char* address;
  bool loopback;
};

class LoopbackAddress : public ::testing::TestWithParam<AddressCase> {};

TEST_P(LoopbackAddress, OnlyThisMachineCountsAsLoopback) {
  EXPECT_EQ(isLoopbackAddress(GetParam().address), GetParam().loopback) << GetParam().address;
}

INSTANTIATE_TEST_SUITE_P(Addresses, LoopbackAddress,
                         ::testing::Values(AddressCase{"127.0.0.1", true},
                                           AddressCase{"127.3.2.1", true}, AddressCase{"::1", true},
                                           AddressCase{"localhost", true},
                                           AddressCase{"0.0.0.0", false}, AddressCase{"::", false},
                                           AddressCase{"192.168.1.10", false},
                                           AddressCase{"example.org", false},
                                           AddressCase{"", false}));

struct OriginCase {
  const char* origin;
  bool allowed;
};

class BrowserOrigin : public ::testing::TestWithParam<OriginCase> {};

TEST_P(BrowserOrigin, OnlyPagesOfThisMachineMayConnect) {
  EXPECT_EQ(isAllowedOrigin(GetParam().origin), GetParam().allowed) << GetParam().origin;
}

INSTANTIATE_TEST_SUITE_P(Origins, BrowserOrigin,
                         ::testing::Values(OriginCase{"http://localhost", true},
                                           OriginCase{"http://localhost:8080", true},
                                           OriginCase{"https://127.0.0.1:443", true},
                                           OriginCase{"http://[::1]:3000", true},
                                           OriginCase{"HTTP://LOCALHOST", true},
                                           OriginCase{"http://evil.example", false},
                                           OriginCase{"http://localhost.evil.example", false},
                                           OriginCase{"http://127.0.0.1.evil.example", false},
                                           OriginCase{"file://", false}, OriginCase{"null", false},
                                           OriginCase{"ws://localhost", false},
                                           OriginCase{"", false}));

struct TokenCase {
  const char* target;
  const char* authorization;
  const char* token;
};

class PresentedToken : public ::testing::TestWithParam<TokenCase> {};

TEST_P(PresentedToken, ComesFromTheQueryOrTheBearerHeader) {
  EXPECT_EQ(presentedToken(GetParam().target, GetParam().authorization), GetParam().token);
}

INSTANTIATE_TEST_SUITE_P(Requests, PresentedToken,
                         ::testing::Values(TokenCase{"/", "", ""},
                                           TokenCase{"/?token=abc", "", "abc"},
                                           TokenCase{"/?x=1&token=a%2Fb&y=2", "", "a/b"},
                                           TokenCase{"/?tokens=abc", "", ""},
                                           TokenCase{"/", "Bearer s3cret", "s3cret"},
                                           TokenCase{"/", "bearer  s3cret ", "s3cret"},
                                           TokenCase{"/", "Basic dXNlcg==", ""},
                                           TokenCase{"/?token=q", "Bearer h", "q"}));

TEST(TokensMatch, OnlyTheExactTokenMatches) {
  EXPECT_TRUE(tokensMatch("s3cret", "s3cret"));
  EXPECT_FALSE(tokensMatch("s3cret", "s3creT"));
  EXPECT_FALSE(tokensMatch("s3cret", "s3cre"));
  EXPECT_FALSE(tokensMatch("s3cret", ""));
  EXPECT_FALSE(tokensMatch("", ""));
}

}  // namespace
}  // namespace gateway
}  // namespace bexko
