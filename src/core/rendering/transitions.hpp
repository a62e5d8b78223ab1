// Transition effects between one wallpaper and the next: each effect is a pure function from
// progress (0...1) and the surface size to a frame that says, for the outgoing and the
// incoming picture, how opaque it is, where it is clipped and how it is moved or scaled.
// Around the registry stand the choice of effect for a handover and its timing.
#pragma once

#include "core/rendering/video_fit.hpp"

#include <array>
#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace korvalen {

// (x, y) maps to (m11·x + m21·y + m31, m12·x + m22·y + m32).
struct TransitionMatrix {
  double m11 = 1;
  double m12 = 0;
  double m21 = 0;
  double m22 = 1;
  double m31 = 0;
  double m32 = 0;

  static constexpr TransitionMatrix identity() { return {}; }
  static constexpr TransitionMatrix translation(double dx, double dy) { return {1, 0, 0, 1, dx, dy}; }
  // Uniform scale by `s` keeping (cx, cy) in place.
  static constexpr TransitionMatrix scale(double s, double cx, double cy) {
    return {s, 0, 0, s, cx * (1 - s), (1 - s) * cy};
  }
  [[nodiscard]] std::pair<double, double> apply(double x, double y) const {
    return {m11 * x + m21 * y + m31, m12 * x + m22 * y + m32};
  }
  [[nodiscard]] std::array<double, 6> values() const { return {m11, m12, m21, m22, m31, m32}; }
  bool operator==(const TransitionMatrix&) const = default;
};

struct TransitionLayer {
  double opacity = 1;
  FitRect clip;
  TransitionMatrix transform;

  static TransitionLayer whole(double width, double height) { return {1, FitRect{0, 0, width, height}, {}}; }
  // Opaque and unmoved; the clip is not looked at (a wipe's incoming layer is whole).
  [[nodiscard]] bool isWhole() const { return opacity == 1 && transform == TransitionMatrix::identity(); }
  bool operator==(const TransitionLayer&) const = default;
};

struct TransitionFrame {
  TransitionLayer outgoing;  // drawn below
  TransitionLayer incoming;  // drawn above
  std::int64_t width = 0;
  std::int64_t height = 0;

  // Fractions of the surface: how much of each picture shows, and of the two together.
  [[nodiscard]] double visibleIncoming() const;
  [[nodiscard]] double visibleOutgoing() const;
  // Below 1, the black background shows through.
  [[nodiscard]] double covered() const;
  // Where a layer lands on the surface, clipped to it.
  [[nodiscard]] FitRect onScreen(const TransitionLayer& layer) const;
  bool operator==(const TransitionFrame&) const = default;
};

struct TransitionEffect {
  using Body = std::function<TransitionFrame(double progress, std::int64_t width, std::int64_t height)>;
  std::string id;
  std::string displayName;
  Body body;

  // Progress is made safe first: NaN is 0, the rest limited to [0, 1].
  [[nodiscard]] TransitionFrame at(double progress, std::int64_t width, std::int64_t height) const;
  bool operator==(const TransitionEffect& other) const { return id == other.id; }
};

namespace TransitionCurve {
double clamp(double t);
// Smoothstep: t²·(3 − 2t) of the clamped value.
double ease(double t);
}  // namespace TransitionCurve

struct TransitionChoice {
  std::optional<TransitionEffect> effect;  // absent: cut without a transition
  std::optional<std::string> note;         // why an effect was substituted
};

struct TransitionTiming {
  static constexpr double minimumSeconds = 0.05;
  double seconds = minimumSeconds;

  explicit TransitionTiming(double requested);
  [[nodiscard]] double progress(double elapsed) const;
  [[nodiscard]] bool isDone(double elapsed) const;
};

namespace TransitionRegistry {
// The twelve built-in effects in the order of the user's list; built once, on first use.
const std::vector<TransitionEffect>& all();
// Trimmed and lower-cased; absent for an absent, blank or unknown id.
std::optional<TransitionEffect> find(const std::optional<std::string>& id);
TransitionEffect findOrDefault(const std::optional<std::string>& id);
}  // namespace TransitionRegistry

namespace TransitionBudget {
// The effects that move the pictures, which reduced motion replaces.
const std::set<std::string>& moving();
std::string requested(const std::optional<std::string>& incoming, const std::optional<std::string>& outgoing,
                      const std::string& setting);
std::optional<std::string> forReducedMotion(const std::optional<std::string>& id, bool reducedMotion);
TransitionChoice choose(const std::optional<std::string>& requested, double seconds, bool incomingNeedsDecoder,
                        bool sharesDecoderWithOutgoing, std::int64_t liveDecoders, std::int64_t maxDecoders);
bool hasRoomForHandover(const std::vector<std::string>& runningIncoming, const std::string& incoming,
                        std::int64_t maxConcurrent);
}  // namespace TransitionBudget

}  // namespace korvalen
