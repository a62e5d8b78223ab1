#include "core/rendering/web_sandbox.hpp"

#include <gtest/gtest.h>

#include <optional>
#include <string>

namespace korvalen {
namespace {

struct FileCase {
  const char* address;
  std::optional<std::string> file;  // absent: refused
};

class WebSandboxFiles : public ::testing::TestWithParam<FileCase> {};

TEST_P(WebSandboxFiles, ServeOnlyTheItemsOwnFolder) {
  const auto& [address, file] = GetParam();
  const auto got = WebSandbox::fileFor(address, "12");
  if (file) {
    ASSERT_TRUE(got) << address << ": " << got.error();
    EXPECT_EQ(*got, *file) << address;
  } else {
    EXPECT_FALSE(got) << address << " gave " << *got;
  }
}

INSTANTIATE_TEST_SUITE_P(
    Addresses, WebSandboxFiles,
    ::testing::Values(
        FileCase{"korvalen-web://12/index.html", "index.html"}, FileCase{"korvalen-web://12", "index.html"},
        FileCase{"korvalen-web://12/", "index.html"}, FileCase{"korvalen-web://12/art/", "art/index.html"},
        FileCase{"korvalen-web://12/art/a%20b.png?v=2#top", "art/a b.png"},
        FileCase{"KORVALEN-WEB://12/./art//x.js", "art/x.js"},
        // Ways out of the folder, each refused.
        FileCase{"korvalen-web://12/../13/index.html", std::nullopt},
        FileCase{"korvalen-web://12/art/../../x", std::nullopt}, FileCase{"korvalen-web://12/%2e%2e/x", std::nullopt},
        FileCase{"korvalen-web://12/%2E%2E%2Fetc%2Fpasswd", std::nullopt},
        FileCase{"korvalen-web://12/a%2fb", std::nullopt}, FileCase{"korvalen-web://12/a%5cb", std::nullopt},
        FileCase{"korvalen-web://12/a%00.html", std::nullopt}, FileCase{"korvalen-web://12/a%zz", std::nullopt},
        FileCase{"korvalen-web://12/a%4", std::nullopt},
        // Another item, another scheme.
        FileCase{"korvalen-web://13/index.html", std::nullopt}, FileCase{"korvalen-web://120/index.html", std::nullopt},
        FileCase{"file:///etc/passwd", std::nullopt}, FileCase{"korvalen-web:12/index.html", std::nullopt}));

struct AllowCase {
  const char* address;
  bool offline;  // allowed without the network
  bool online;   // allowed with it
};

class WebSandboxRequests : public ::testing::TestWithParam<AllowCase> {};

TEST_P(WebSandboxRequests, LeaveTheOriginOnlyWithTheNetwork) {
  const auto& [address, offline, online] = GetParam();
  EXPECT_EQ(WebSandbox::allows(address, "12", false), offline) << address;
  EXPECT_EQ(WebSandbox::allows(address, "12", true), online) << address;
}

INSTANTIATE_TEST_SUITE_P(
    Addresses, WebSandboxRequests,
    ::testing::Values(AllowCase{"korvalen-web://12/a.js", true, true},
                      AllowCase{"korvalen-web://13/a.js", false, false},
                      AllowCase{"http://127.0.0.1:8000/x", false, true}, AllowCase{"https://example.org/", false, true},
                      AllowCase{"ws://localhost/socket", false, true}, AllowCase{"file:///etc/passwd", false, false},
                      AllowCase{"about:blank", true, true}, AllowCase{"data:text/plain,hi", true, true},
                      AllowCase{"blob:korvalen-web://12/5e1", true, true}, AllowCase{"mailto:someone", false, false}));

TEST(WebSandbox, AddressesAndPolicyNameTheItemsOrigin) {
  EXPECT_EQ(WebSandbox::pageAddress("7", "index.html"), "korvalen-web://7/index.html");
  EXPECT_EQ(WebSandbox::pageAddress("7", "my page/a#b.html"), "korvalen-web://7/my%20page/a%23b.html");
  // What pageAddress makes, fileFor reads back.
  EXPECT_EQ(WebSandbox::fileFor(WebSandbox::pageAddress("7", "my page/a#b.html"), "7").value_or(""),
            "my page/a#b.html");
  const auto policy = WebSandbox::contentSecurityPolicy("7");
  EXPECT_EQ(policy.find("default-src korvalen-web://7 "), 0U) << policy;
  EXPECT_NE(policy.find("form-action korvalen-web://7"), std::string::npos) << policy;
  EXPECT_EQ(policy.find("http"), std::string::npos) << policy;
}

TEST(WebSandbox, MediaTypes) {
  EXPECT_EQ(WebSandbox::mediaTypeOf("index.HTML"), "text/html");
  EXPECT_EQ(WebSandbox::mediaTypeOf("js/app.mjs"), "text/javascript");
  EXPECT_EQ(WebSandbox::mediaTypeOf("a.woff2"), "font/woff2");
  EXPECT_EQ(WebSandbox::mediaTypeOf("v.d/README"), "application/octet-stream");
  EXPECT_EQ(WebSandbox::mediaTypeOf("x.unknown"), "application/octet-stream");
}

}  // namespace
}  // namespace korvalen
