#include <bexko/gateway/access.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace bexko {
namespace gateway {
namespace {

TEST(GatewayAccess, OnlyThisMachineCountsAsLoopbackOrAsALocalOrigin) {
  for (const char* address : {"127.3.2.1", "::1", "localhost"}) {
    EXPECT_TRUE(isLoopbackAddress(address)) << address;
  }
  for (const char* address : {"0.0.0.0", "192.168.1.10", "example.org"}) {
    EXPECT_FALSE(isLoopbackAddress(address)) << address;
  }
  // GatewayTest.UpgradesOnlyWithTheTokenAndALocalOrigin sends http://127.0.0.1:5000 and
  // http://evil.example.
  for (const char* origin : {"http://localhost", "https://[::1]:3000", "HTTP://LOCALHOST"}) {
    EXPECT_TRUE(isAllowedOrigin(origin)) << origin;
  }
  for (const char* origin : {"http://localhost.evil.example", "null", "ws://localhost"}) {
    EXPECT_FALSE(isAllowedOrigin(origin)) << origin;
  }
}

TEST(GatewayAccess, TheConsoleOriginIsTheGatewaysOwnAddressAndPort) {
  struct Case {
    const char* address;
    std::vector<std::string> origins;
  };
  for (const Case& c :
       {Case{"127.0.0.1", {"http://127.0.0.1:9559", "http://localhost:9559"}},
        Case{"192.168.1.10", {"http://192.168.1.10:9559"}},
        Case{"::1", {"http://[::1]:9559", "http://localhost:9559"}},
        Case{"fe80::1", {"http://[fe80::1]:9559"}}, Case{"0.0.0.0", {}}, Case{"::", {}}}) {
    EXPECT_EQ(consoleOrigins(c.address, 9559), c.origins) << c.address;
  }
  const auto lan = consoleOrigins("192.168.1.10", 9559);
  EXPECT_TRUE(isOneOfOrigins("http://192.168.1.10:9559", lan));
  EXPECT_TRUE(isOneOfOrigins("HTTP://192.168.1.10:9559/", lan));
  for (const char* origin : {"http://192.168.1.10:9560", "https://192.168.1.10:9559",
                             "http://192.168.1.100:9559", "http://192.168.1.10", "null"}) {
    EXPECT_FALSE(isOneOfOrigins(origin, lan)) << origin;
  }
}

TEST(GatewayAccess, TokenComesFromTheQueryOrTheBearerHeaderAndMustMatchExactly) {
  struct Case {
    const char* target;
    const char* authorization;
    const char* token;
  };
  for (const Case& c : {Case{"/", "", ""}, Case{"/?x=1&token=a%2Fb&y=2", "", "a/b"},
                        Case{"/?tokens=abc", "", ""}, Case{"/", "bearer  s3cret ", "s3cret"},
                        Case{"/", "Basic dXNlcg==", ""}, Case{"/?token=q", "Bearer h", "q"}}) {
    EXPECT_EQ(presentedToken(c.target, c.authorization), c.token) << c.target << c.authorization;
  }
  // A matching token is accepted in every case of
  // GatewayTest.UpgradesOnlyWithTheTokenAndALocalOrigin.
  for (const char* wrong : {"s3creT", "s3cre", ""}) EXPECT_FALSE(tokensMatch("s3cret", wrong));
  EXPECT_FALSE(tokensMatch("", ""));
}

}  // namespace
}  // namespace gateway
}  // namespace bexko
