#include "core/wallpaper/control_protocol.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace korvalen::wallpaper {
namespace {

using ::testing::HasSubstr;

TEST(ControlProtocol, RequestsReadAsWrittenAndBadLinesSayWhatIsWrong) {
  struct Case {
    std::string line;
    std::optional<ControlRequest> request;
    const char* error;
  };
  const std::vector<Case> cases{
      {R"({"command":"status"})", ControlRequest{Command::status, std::nullopt}, ""},
      {R"({"command":"pause","monitor":"dell|1920x1080"})", ControlRequest{Command::pause, "dell|1920x1080"}, ""},
      {R"({"command":"resume","monitor":null})", ControlRequest{Command::resume, std::nullopt}, ""},
      {R"({"command":"next","extra":1})", ControlRequest{Command::next, std::nullopt}, ""},
      {R"({"command":"dance"})", std::nullopt, "unknown command \"dance\""},
      {R"({"command":7})", std::nullopt, "has no \"command\" text"},
      {R"({})", std::nullopt, "has no \"command\" text"},
      {R"({"command":"pause","monitor":3})", std::nullopt, "\"monitor\" is not text"},
      {R"(["status"])", std::nullopt, "not a JSON object"},
      {"status", std::nullopt, "not JSON"},
      {"{\"command\":\"status\",\"pad\":\"" + std::string(maximumLine, 'x') + "\"}", std::nullopt, "longer than"},
  };
  for (const auto& c : cases) {
    const auto read = parseRequest(c.line);
    if (c.request) {
      ASSERT_TRUE(read.has_value()) << c.line << ": " << read.error();
      EXPECT_EQ(*read, *c.request) << c.line;
      EXPECT_EQ(parseRequest(encode(*read)), *c.request) << c.line;
    } else {
      ASSERT_FALSE(read.has_value()) << c.line;
      EXPECT_THAT(read.error(), HasSubstr(c.error)) << c.line;
    }
  }
}

TEST(ControlProtocol, AStatusReplyReadsBackWithEveryMonitorField) {
  ControlReply reply{true,
                     "2 monitor(s) as desktop",
                     {MonitorStatus{"LEFT|1920x1080", PlaybackMode::paused, true, "fullscreen", "3", false, 0},
                      MonitorStatus{"RIGHT|1920x1080", PlaybackMode::running, false, std::nullopt, "4", false, 29.5}}};
  const auto line = encode(reply);
  EXPECT_EQ(line.find('\n'), std::string::npos);
  const auto read = parseReply(line);
  ASSERT_TRUE(read.has_value()) << read.error();
  EXPECT_EQ(*read, reply);
  const auto json = json::encode(reply.monitors[0]);
  for (const auto* key : {"monitorId", "mode", "muted", "reason", "itemID", "userPaused", "framesPerSecond"}) {
    EXPECT_TRUE(json.contains(key)) << key;
  }
  EXPECT_EQ(json["mode"], "paused");

  const auto refused = parseReply(R"({"ok":false,"message":"refused"})");
  ASSERT_TRUE(refused.has_value());
  EXPECT_FALSE(refused->ok);
  EXPECT_THAT(parseReply(R"({"ok":true,"message":"x","monitors":[{"monitorId":"a","mode":"sleeping"}]})").error(),
              HasSubstr("mode"));
}

}  // namespace
}  // namespace korvalen::wallpaper
