#include "core/diagnostics/redact.hpp"

#include "support/param_name.hpp"

#include <gtest/gtest.h>

namespace korvalen {
namespace {

struct RedactCase {
  const char* name;
  const char* input;
  const char* expected;
};

class RedactSecrets : public ::testing::TestWithParam<RedactCase> {};

TEST_P(RedactSecrets, KeepsNamesAndHidesValues) {
  EXPECT_EQ(Redact::secrets(GetParam().input), GetParam().expected);
}

// clang-format off
INSTANTIATE_TEST_SUITE_P(Diagnostics, RedactSecrets, ::testing::Values(
  RedactCase{"Empty",             "",                                    ""},
  RedactCase{"JsonString",        R"({"apiToken" : "abc123"})",         R"({"apiToken": "<set, 6 chars>"})"},
  RedactCase{"JsonNull",          R"({"password":null})",               R"({"password": null})"},
  RedactCase{"EscapedQuote",      R"({"client_secret": "a\"b,c"})",     R"({"client_secret": "<set, 6 chars>"})"},
  RedactCase{"EmptyValueIsSet",   R"({"token": ""})",                   R"({"token": "<set, 0 chars>"})"},
  RedactCase{"KeysAnyCase",       R"({"ACCESS_TOKEN":"x","MyPassword":"yy"})", R"({"ACCESS_TOKEN": "<set, 1 chars>","MyPassword": "<set, 2 chars>"})"},
  RedactCase{"UnderscoreBeforeKey", R"({"api_key": "abcdefgh1"})",      R"({"api_key": "abcdefgh1"})"},
  RedactCase{"OpenAiKey",         R"({"openaiApiKey": "sk-1"})",        R"({"openaiApiKey": "<set, 4 chars>"})"},
  RedactCase{"CountsUtf16",       "{\"token\": \"\u00e9\U0001F600\"}",  R"({"token": "<set, 3 chars>"})"},
  RedactCase{"NonAsciiBefore",    "\u00c5ngstr\u00f6m \U0001F600 {\"secret\": \"s3cr3t\"} key=abcdefgh", "\u00c5ngstr\u00f6m \U0001F600 {\"secret\": \"<set, 6 chars>\"} key=<redacted>"},
  RedactCase{"EightChars",        "?key=abcdefgh",                       "?key=<redacted>"},
  RedactCase{"SevenChars",        "?key=abcdefg",                        "?key=abcdefg"},
  RedactCase{"StopsAtOtherChars", "token=abcd1234!rest",                 "token=<redacted>!rest"},
  RedactCase{"QueryNamesAnyCase", "API-KEY=ABCDEFGH1&Access_Token=12345678", "API-KEY=<redacted>&Access_Token=<redacted>"},
  RedactCase{"BothForms",         R"({"secret":"x"} secret=abcdefghij)", R"({"secret": "<set, 1 chars>"} secret=<redacted>)"},
  RedactCase{"RedactedAgain",     R"({"token": "<set, 6 chars>"})",     R"({"token": "<set, 14 chars>"})"}),
  korvalen::testing::ByName{});
// clang-format on

}  // namespace
}  // namespace korvalen
