// The hand-off between the wallpaper application and the screensaver: one small JSON file
// with the screensaver-wide playback settings and the content for each screen. The
// application writes it; the screensaver only reads it, and a plan it cannot read is no plan.
#pragma once

#include "core/library/library_item.hpp"
#include "core/rendering/crop_rect.hpp"
#include "core/rendering/trim_range.hpp"
#include "core/support/iso8601.hpp"
#include "core/support/json.hpp"
#include "core/support/paths.hpp"

#include <cstdint>
#include <expected>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace korvalen {

struct SaverContent {
  WallpaperKind kind = WallpaperKind::none;
  std::string path;
  std::optional<std::string> title;
  FitMode fit = FitMode::fill;
  std::optional<CropRect> crop;
  bool mirrorHorizontal = false;
  bool mirrorVertical = false;
  double trimStart = 0;
  double trimEnd = 0;
  double sharpen = 0;
  std::optional<std::string> still;  // stands in for content the screensaver cannot run (a page)
  std::optional<bool> held;          // the application's verdict that the content flashes

  SaverContent() = default;
  SaverContent(WallpaperKind kind_, std::string path_, std::optional<std::string> title_, FitMode fit_)
      : kind(kind_), path(std::move(path_)), title(std::move(title_)), fit(fit_) {}

  // The screensaver's view of a library content record for one screen: that screen's own
  // crop wins over the general one.
  static SaverContent from(const WallpaperContent& content, const std::string& screen, std::optional<std::string> title,
                           double sharpen, std::optional<std::string> still);

  [[nodiscard]] TrimRange trim() const { return TrimRange{trimStart, trimEnd}; }
  [[nodiscard]] bool isHeld() const { return held.value_or(false); }

  bool operator==(const SaverContent&) const = default;
};

// Which rule gave a screen its content.
enum class ScreenRule { chosen, ownEntry, shared, nothing };
std::string_view toString(ScreenRule rule);

struct SaverPlan {
  static constexpr std::string_view fileName = "screensaver-plan.json";
  static constexpr std::int64_t currentVersion = 1;

  std::int64_t version = currentVersion;
  Date written = currentDate();
  bool sound = false;
  double volume = 1.0;
  double dim = 0.0;
  double saturation = 1.0;
  double rate = 1.0;
  std::map<std::string, SaverContent> screens;
  std::optional<SaverContent> shared;
  std::optional<SaverContent> chosen;
  std::optional<bool> stopsFlashing;

  // Absent `stopsFlashing` guards: a plan from before the field existed still protects.
  [[nodiscard]] bool guardsFlashes() const { return stopsFlashing.value_or(true); }

  // `chosen` on every screen; else the screen's own entry (exact text); else `shared`.
  [[nodiscard]] ScreenRule ruleForScreen(const std::string& id) const;
  [[nodiscard]] std::optional<SaverContent> contentForScreen(const std::string& id) const;

  // Whether another plan says the same, ignoring only when it was written.
  [[nodiscard]] bool sameContent(const std::optional<SaverPlan>& other) const;

  // Where the screensaver looks: "KORVALEN_SAVER_PLAN" when set, used as it stands;
  // otherwise "screensaver-plan.json" in the Korvalen folder of the home folder that the
  // user database records (not the sandbox home the host may report).
  static std::filesystem::path location(
      const paths::Environment& environment,
      const std::optional<std::filesystem::path>& recordedHome = paths::recordedHomeFolder());

  // Never fails loudly: a missing, unreadable or undecodable file is no plan.
  static std::optional<SaverPlan> read(const std::filesystem::path& path);
  // The same as `read`, saying why there is no plan.
  [[nodiscard]] static std::expected<SaverPlan, std::string> load(const std::filesystem::path& path);
  [[nodiscard]] static json::Result<SaverPlan> decode(std::string_view text);

  // Pretty-printed with sorted keys: the same plan always gives the same bytes.
  [[nodiscard]] std::string encode() const;
  // Creates the folder, then replaces the file atomically; the old file survives a failure.
  [[nodiscard]] std::expected<void, std::string> write(const std::filesystem::path& path) const;

  bool operator==(const SaverPlan&) const = default;
};

namespace json {
// The plan's format writes and reads non-finite floats as "Infinity", "-Infinity", "NaN".
inline constexpr Options saverPlanOptions{.nonFiniteStrings = true};

template <>
struct Coding<SaverContent> {
  static Json encode(const SaverContent& content, const Options& options);
  [[nodiscard]] static Result<SaverContent> decode(const Json& json, const Options& options);
};
template <>
struct Coding<SaverPlan> {
  static Json encode(const SaverPlan& plan, const Options& options);
  [[nodiscard]] static Result<SaverPlan> decode(const Json& json, const Options& options);
};
}  // namespace json

}  // namespace korvalen
