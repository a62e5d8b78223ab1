#include "core/planning/saver_plan.hpp"

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

std::filesystem::path SaverPlan::location(const paths::Environment& environment,
                                          const std::optional<std::filesystem::path>& recordedHome) {
  if (auto overridden = environment("KORVALEN_SAVER_PLAN")) {
    return *overridden;
  }
  return paths::korvalenFolder(paths::homeFolder(environment, recordedHome), environment) / fileName;
}

std::optional<SaverPlan> SaverPlan::read(const std::filesystem::path& path) {
  auto plan = load(path);
  return plan ? std::optional<SaverPlan>(std::move(*plan)) : std::nullopt;
}

std::string SaverPlan::encode() const {
  return json::pretty(json::encode(*this, json::saverPlanOptions));
}

std::expected<void, std::string> SaverPlan::write(const std::filesystem::path& path) const {
  const auto coded = json::encode(*this, json::saverPlanOptions);
  if (const auto where = json::firstInvalidText(coded)) {
    return std::unexpected(fmt::format("could not write {}: {} is not valid UTF-8 text", path.string(), *where));
  }
  return files::writeAtomically(path, json::pretty(coded));
}

namespace json {

namespace {

constexpr auto saverContentFields = [](auto& coder, auto& content) {
  coder.required("kind", content.kind);
  coder.required("path", content.path);
  coder.optional("title", content.title);
  coder.required("fit", content.fit);
  coder.optional("crop", content.crop);
  coder.required("mirrorHorizontal", content.mirrorHorizontal);
  coder.required("mirrorVertical", content.mirrorVertical);
  coder.required("trimStart", content.trimStart);
  coder.required("trimEnd", content.trimEnd);
  coder.required("sharpen", content.sharpen);
  coder.optional("still", content.still);
  coder.optional("held", content.held);
};

constexpr auto saverPlanFields = [](auto& coder, auto& plan) {
  coder.required("version", plan.version);
  coder.required("written", plan.written);
  coder.required("sound", plan.sound);
  coder.required("volume", plan.volume);
  coder.required("dim", plan.dim);
  coder.required("saturation", plan.saturation);
  coder.required("rate", plan.rate);
  coder.required("screens", plan.screens);
  coder.optional("shared", plan.shared);
  coder.optional("chosen", plan.chosen);
  coder.optional("stopsFlashing", plan.stopsFlashing);
};

}  // namespace

KORVALEN_CODING_FROM_FIELDS(SaverContent, saverContentFields)

KORVALEN_CODING_FROM_FIELDS(SaverPlan, saverPlanFields)

}  // namespace json
}  // namespace korvalen
