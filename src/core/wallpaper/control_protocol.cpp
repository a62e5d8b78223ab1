#include "core/wallpaper/control_protocol.hpp"

#include "core/support/enum_words.hpp"

namespace korvalen::wallpaper {

namespace {

constexpr EnumWords<Command, 6> commandWords{{{Command::status, "status"},
                                              {Command::pause, "pause"},
                                              {Command::resume, "resume"},
                                              {Command::next, "next"},
                                              {Command::reload, "reload"},
                                              {Command::stop, "stop"}}};

std::expected<json::Json, std::string> objectLine(std::string_view line, std::string_view what) {
  if (line.size() > maximumLine) {
    return std::unexpected(fmt::format("{} longer than {} bytes", what, maximumLine));
  }
  auto parsed = json::parse(line);
  if (!parsed) {
    return std::unexpected(fmt::format("{} is not JSON: {}", what, parsed.error()));
  }
  if (!parsed->is_object()) {
    return std::unexpected(fmt::format("{} is not a JSON object", what));
  }
  return std::move(*parsed);
}

}  // namespace

std::string_view toString(Command command) {
  return wordFor(commandWords, command);
}

std::optional<Command> commandNamed(std::string_view word) {
  return valueFor(commandWords, word);
}

std::expected<ControlRequest, std::string> parseRequest(std::string_view line) {
  auto object = objectLine(line, "the request");
  if (!object) {
    return std::unexpected(object.error());
  }
  const auto command = object->find("command");
  if (command == object->end() || !command->is_string()) {
    return std::unexpected(std::string("the request has no \"command\" text"));
  }
  ControlRequest request;
  const auto& word = command->get_ref<const std::string&>();
  const auto named = commandNamed(word);
  if (!named) {
    return std::unexpected(
        fmt::format("unknown command {}; the commands are status, pause, resume, next, "
                    "reload and stop",
                    json::compact(word)));
  }
  request.command = *named;
  if (const auto monitor = object->find("monitor"); monitor != object->end() && !monitor->is_null()) {
    if (!monitor->is_string()) {
      return std::unexpected(std::string("the request's \"monitor\" is not text"));
    }
    request.monitor = monitor->get<std::string>();
  }
  return request;
}

std::string encode(const ControlRequest& request) {
  json::Json out{{"command", std::string(toString(request.command))}};
  if (request.monitor) {
    out["monitor"] = *request.monitor;
  }
  return json::compact(out);
}

std::string encode(const ControlReply& reply) {
  json::Json out{{"ok", reply.ok}, {"message", reply.message}};
  if (!reply.monitors.empty()) {
    out["monitors"] = json::encode(reply.monitors);
  }
  return json::compact(out);
}

std::expected<ControlReply, std::string> parseReply(std::string_view line) {
  auto object = objectLine(line, "the reply");
  if (!object) {
    return std::unexpected(object.error());
  }
  json::ObjectReader in(*object, json::Options{});
  ControlReply reply;
  in.required("ok", reply.ok);
  in.required("message", reply.message);
  std::optional<std::vector<MonitorStatus>> monitors;
  in.optional("monitors", monitors);
  auto read = in.finishWith(std::move(reply));
  if (!read) {
    return std::unexpected("the reply: " + read.error().describe());
  }
  read->monitors = monitors.value_or(std::vector<MonitorStatus>{});
  return std::move(*read);
}

}  // namespace korvalen::wallpaper

namespace korvalen::json {

Json Coding<wallpaper::MonitorStatus>::encode(const wallpaper::MonitorStatus& status, const Options& options) {
  ObjectWriter out(options);
  out.put("monitorId", status.monitorId)
      .put("mode", status.mode)
      .put("muted", status.muted)
      .putIfPresent("reason", status.reason)
      .putIfPresent("itemID", status.itemID)
      .put("userPaused", status.userPaused)
      .put("framesPerSecond", status.framesPerSecond);
  return out.take();
}

Result<wallpaper::MonitorStatus> Coding<wallpaper::MonitorStatus>::decode(const Json& json, const Options& options) {
  if (!json.is_object()) {
    return std::unexpected(typeError("an object", json));
  }
  ObjectReader in(json, options);
  wallpaper::MonitorStatus status;
  in.required("monitorId", status.monitorId);
  in.required("mode", status.mode);
  in.required("muted", status.muted);
  in.optional("reason", status.reason);
  in.optional("itemID", status.itemID);
  in.required("userPaused", status.userPaused);
  in.required("framesPerSecond", status.framesPerSecond);
  return in.finishWith(std::move(status));
}

}  // namespace korvalen::json
