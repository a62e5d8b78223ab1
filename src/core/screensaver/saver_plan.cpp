#include "core/screensaver/saver_plan.hpp"

#include "core/support/atomic_file.hpp"

#include <fmt/format.h>

namespace korvalen {

SaverContent SaverContent::from(const WallpaperContent& content, const std::string& screen,
                                std::optional<std::string> title, double sharpen, std::optional<std::string> still) {
  SaverContent out(content.kind, content.path, std::move(title), content.fit);
  const auto own = content.cropByMonitor.find(screen);
  out.crop = own != content.cropByMonitor.end() ? std::optional<CropRect>(own->second) : content.crop;
  out.mirrorHorizontal = content.mirrorHorizontal;
  out.mirrorVertical = content.mirrorVertical;
  out.trimStart = content.trimStart;
  out.trimEnd = content.trimEnd;
  out.sharpen = sharpen;
  out.still = std::move(still);
  return out;
}

std::string_view toString(ScreenRule rule) {
  switch (rule) {
    case ScreenRule::chosen:
      return "chosen";
    case ScreenRule::ownEntry:
      return "screen";
    case ScreenRule::shared:
      return "shared";
    case ScreenRule::nothing:
      return "nothing";
  }
  return "nothing";
}

ScreenRule SaverPlan::ruleForScreen(const std::string& id) const {
  if (chosen) {
    return ScreenRule::chosen;
  }
  if (screens.contains(id)) {
    return ScreenRule::ownEntry;
  }
  return shared ? ScreenRule::shared : ScreenRule::nothing;
}

std::optional<SaverContent> SaverPlan::contentForScreen(const std::string& id) const {
  switch (ruleForScreen(id)) {
    case ScreenRule::chosen:
      return chosen;
    case ScreenRule::ownEntry:
      return screens.at(id);
    case ScreenRule::shared:
      return shared;
    case ScreenRule::nothing:
      break;
  }
  return std::nullopt;
}

bool SaverPlan::sameContent(const std::optional<SaverPlan>& other) const {
  if (!other) {
    return false;
  }
  SaverPlan copy = *other;
  copy.written = written;
  return copy == *this;
}

json::Result<SaverPlan> SaverPlan::decode(std::string_view text) {
  auto parsed = json::parse(text);
  if (!parsed) {
    return std::unexpected(json::Error{"", parsed.error()});
  }
  return json::decode<SaverPlan>(*parsed, json::saverPlanOptions);
}

std::expected<SaverPlan, std::string> SaverPlan::load(const std::filesystem::path& path) {
  auto bytes = files::read(path);
  if (!bytes) {
    return std::unexpected(bytes.error());
  }
  auto plan = decode(*bytes);
  if (!plan) {
    return std::unexpected(fmt::format("{} is not a readable plan: {}", path.string(), plan.error().describe()));
  }
  return std::move(*plan);
}

std::optional<SaverPlan> SaverPlan::read(const std::filesystem::path& path) {
  auto plan = load(path);
  return plan ? std::optional<SaverPlan>(std::move(*plan)) : std::nullopt;
}

std::string SaverPlan::encode() const {
  return json::pretty(json::encode(*this, json::saverPlanOptions));
}

std::expected<void, std::string> SaverPlan::write(const std::filesystem::path& path) const {
  return files::writeAtomically(path, encode());
}

namespace json {

Json Coding<SaverContent>::encode(const SaverContent& content, const Options& options) {
  ObjectWriter out(options);
  out.put("kind", content.kind)
      .put("path", content.path)
      .putIfPresent("title", content.title)
      .put("fit", content.fit)
      .putIfPresent("crop", content.crop)
      .put("mirrorHorizontal", content.mirrorHorizontal)
      .put("mirrorVertical", content.mirrorVertical)
      .put("trimStart", content.trimStart)
      .put("trimEnd", content.trimEnd)
      .put("sharpen", content.sharpen)
      .putIfPresent("still", content.still)
      .putIfPresent("held", content.held);
  return out.take();
}

Result<SaverContent> Coding<SaverContent>::decode(const Json& json, const Options& options) {
  ObjectReader in(json, options);
  SaverContent content;
  in.required("kind", content.kind);
  in.required("path", content.path);
  in.optional("title", content.title);
  in.required("fit", content.fit);
  in.optional("crop", content.crop);
  in.required("mirrorHorizontal", content.mirrorHorizontal);
  in.required("mirrorVertical", content.mirrorVertical);
  in.required("trimStart", content.trimStart);
  in.required("trimEnd", content.trimEnd);
  in.required("sharpen", content.sharpen);
  in.optional("still", content.still);
  in.optional("held", content.held);
  return in.finishWith(std::move(content));
}

Json Coding<SaverPlan>::encode(const SaverPlan& plan, const Options& options) {
  ObjectWriter out(options);
  out.put("version", plan.version)
      .put("written", plan.written)
      .put("sound", plan.sound)
      .put("volume", plan.volume)
      .put("dim", plan.dim)
      .put("saturation", plan.saturation)
      .put("rate", plan.rate)
      .put("screens", plan.screens)
      .putIfPresent("shared", plan.shared)
      .putIfPresent("chosen", plan.chosen)
      .putIfPresent("stopsFlashing", plan.stopsFlashing);
  return out.take();
}

Result<SaverPlan> Coding<SaverPlan>::decode(const Json& json, const Options& options) {
  ObjectReader in(json, options);
  SaverPlan plan;
  in.required("version", plan.version);
  in.required("written", plan.written);
  in.required("sound", plan.sound);
  in.required("volume", plan.volume);
  in.required("dim", plan.dim);
  in.required("saturation", plan.saturation);
  in.required("rate", plan.rate);
  in.required("screens", plan.screens);
  in.optional("shared", plan.shared);
  in.optional("chosen", plan.chosen);
  in.optional("stopsFlashing", plan.stopsFlashing);
  return in.finishWith(std::move(plan));
}

}  // namespace json
}  // namespace korvalen
