#include "core/rendering/transitions.hpp"

#include "core/support/text.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>

namespace korvalen {
namespace {

double area(const FitRect& rect) {
  return std::max(rect.width, 0.0) * std::max(rect.height, 0.0);
}

FitRect intersection(const FitRect& a, const FitRect& b) {
  const double left = std::max(a.x, b.x);
  const double top = std::max(a.y, b.y);
  const double right = std::min(a.x + a.width, b.x + b.width);
  const double bottom = std::min(a.y + a.height, b.y + b.height);
  return FitRect{left, top, right - left, bottom - top};
}

double real(std::int64_t value) {
  return static_cast<double>(value);
}

// A frame with both pictures whole; effects change what they need.
TransitionFrame wholeFrame(std::int64_t width, std::int64_t height) {
  return TransitionFrame{TransitionLayer::whole(real(width), real(height)),
                         TransitionLayer::whole(real(width), real(height)), width, height};
}

TransitionEffect effect(std::string id, std::string name, TransitionEffect::Body body) {
  return TransitionEffect{std::move(id), std::move(name), std::move(body)};
}

TransitionEffect wipe(std::string id, std::string name, int edge) {
  return effect(std::move(id), std::move(name), [edge](double p, std::int64_t width, std::int64_t height) {
    auto frame = wholeFrame(width, height);
    const double e = TransitionCurve::ease(p);
    const double w = real(width);
    const double h = real(height);
    switch (edge) {
      case 0:
        frame.incoming.clip = {0, 0, e * w, h};
        break;
      case 1:
        frame.incoming.clip = {w - e * w, 0, e * w, h};
        break;
      case 2:
        frame.incoming.clip = {0, h - e * h, w, e * h};
        break;
      default:
        frame.incoming.clip = {0, 0, w, e * h};
        break;
    }
    return frame;
  });
}

// The four slides come from one factory: the outgoing picture moves a whole surface in
// (dx, dy) while the incoming one follows from the other side.
TransitionEffect slide(std::string id, std::string name, double dx, double dy) {
  return effect(std::move(id), std::move(name), [dx, dy](double p, std::int64_t width, std::int64_t height) {
    auto frame = wholeFrame(width, height);
    const double e = TransitionCurve::ease(p);
    const double w = real(width);
    const double h = real(height);
    frame.outgoing.transform = TransitionMatrix::translation(dx * w * e, dy * h * e);
    frame.incoming.transform = TransitionMatrix::translation(dx * w * (e - 1), dy * h * (e - 1));
    return frame;
  });
}

std::vector<TransitionEffect> builtIns() {
  std::vector<TransitionEffect> effects;
  effects.push_back(effect("crossBlend", "Cross blend", [](double p, std::int64_t width, std::int64_t height) {
    auto frame = wholeFrame(width, height);
    frame.incoming.opacity = TransitionCurve::ease(p);
    return frame;
  }));
  effects.push_back(
      effect("fadeThroughBlack", "Fade through black", [](double p, std::int64_t width, std::int64_t height) {
        auto frame = wholeFrame(width, height);
        // The midpoint belongs to the first half: both pictures are gone there.
        frame.outgoing.opacity = p <= 0.5 ? 1 - TransitionCurve::ease(2 * p) : 0;
        frame.incoming.opacity = p <= 0.5 ? 0 : TransitionCurve::ease(2 * (p - 0.5));
        return frame;
      }));
  effects.push_back(wipe("wipeLeft", "Wipe from the left", 0));
  effects.push_back(wipe("wipeRight", "Wipe from the right", 1));
  effects.push_back(wipe("wipeUp", "Wipe from the bottom", 2));
  effects.push_back(wipe("wipeDown", "Wipe from the top", 3));
  effects.push_back(slide("slideLeft", "Slide to the left", -1, 0));
  effects.push_back(slide("slideRight", "Slide to the right", 1, 0));
  effects.push_back(slide("slideUp", "Slide upwards", 0, -1));
  effects.push_back(slide("slideDown", "Slide downwards", 0, 1));
  effects.push_back(effect("zoomIn", "Zoom in", [](double p, std::int64_t width, std::int64_t height) {
    auto frame = wholeFrame(width, height);
    const double e = TransitionCurve::ease(p);
    frame.incoming.opacity = e;
    frame.incoming.transform = TransitionMatrix::scale(0.6 + 0.4 * e, real(width) * 0.5, real(height) * 0.5);
    return frame;
  }));
  effects.push_back(effect("zoomOut", "Zoom out", [](double p, std::int64_t width, std::int64_t height) {
    auto frame = wholeFrame(width, height);
    const double e = TransitionCurve::ease(p);
    // 1.4 − 1 as computed in double precision (0.3999999999999999), kept that way.
    const double growth = 1.4 - 1;
    frame.outgoing.opacity = 1 - e;
    frame.outgoing.transform = TransitionMatrix::scale(1 + growth * e, real(width) * 0.5, real(height) * 0.5);
    frame.incoming.opacity = e;
    return frame;
  }));
  return effects;
}

}  // namespace

FitRect TransitionFrame::onScreen(const TransitionLayer& layer) const {
  const auto [x1, y1] = layer.transform.apply(layer.clip.x, layer.clip.y);
  const auto [x2, y2] = layer.transform.apply(layer.clip.x + layer.clip.width, layer.clip.y + layer.clip.height);
  const double minX = std::min(x1, x2);
  const double minY = std::min(y1, y2);
  const double left = std::max(minX, 0.0);
  const double top = std::max(minY, 0.0);
  const double right = std::min(minX + std::abs(x2 - x1), real(width));
  const double bottom = std::min(minY + std::abs(y2 - y1), real(height));
  return FitRect{left, top, right - left, bottom - top};
}

double TransitionFrame::visibleIncoming() const {
  const double surface = std::max(real(width) * real(height), 1.0);
  return incoming.opacity * area(onScreen(incoming)) / surface;
}

double TransitionFrame::visibleOutgoing() const {
  const double surface = std::max(real(width) * real(height), 1.0);
  const auto out = onScreen(outgoing);
  const auto hidden = incoming.opacity * area(intersection(out, onScreen(incoming)));
  return outgoing.opacity * std::max(0.0, area(out) - hidden) / surface;
}

double TransitionFrame::covered() const {
  return std::min(1.0, visibleOutgoing() + visibleIncoming());
}

TransitionFrame TransitionEffect::at(double progress, std::int64_t width, std::int64_t height) const {
  return body(TransitionCurve::clamp(progress), width, height);
}

double TransitionCurve::clamp(double t) {
  return std::isnan(t) ? 0.0 : std::clamp(t, 0.0, 1.0);
}

double TransitionCurve::ease(double t) {
  const double c = clamp(t);
  return c * c * (3 - 2 * c);
}

TransitionTiming::TransitionTiming(double requested)
    : seconds(std::isnan(requested) ? minimumSeconds : std::max(requested, minimumSeconds)) {}

double TransitionTiming::progress(double elapsed) const {
  return TransitionCurve::clamp(elapsed / seconds);
}

bool TransitionTiming::isDone(double elapsed) const {
  return elapsed / seconds >= 1;
}

const std::vector<TransitionEffect>& TransitionRegistry::all() {
  static const std::vector<TransitionEffect> effects = builtIns();
  return effects;
}

std::optional<TransitionEffect> TransitionRegistry::find(const std::optional<std::string>& id) {
  if (!id) {
    return std::nullopt;
  }
  const auto wanted = text::lowercased(text::trimWhitespaceAndNewlines(*id));
  if (wanted.empty()) {
    return std::nullopt;
  }
  for (const auto& effect : all()) {
    if (text::lowercased(effect.id) == wanted) {
      return effect;
    }
  }
  return std::nullopt;
}

TransitionEffect TransitionRegistry::findOrDefault(const std::optional<std::string>& id) {
  return find(id).value_or(all().front());
}

const std::set<std::string>& TransitionBudget::moving() {
  static const std::set<std::string> ids{"slideLeft", "slideRight", "slideUp", "slideDown", "zoomIn", "zoomOut"};
  return ids;
}

std::string TransitionBudget::requested(const std::optional<std::string>& incoming,
                                        const std::optional<std::string>& outgoing, const std::string& setting) {
  return incoming.value_or(outgoing.value_or(setting));
}

std::optional<std::string> TransitionBudget::forReducedMotion(const std::optional<std::string>& id,
                                                              bool reducedMotion) {
  if (reducedMotion) {
    if (const auto effect = TransitionRegistry::find(id); effect && moving().contains(effect->id)) {
      return std::string("crossBlend");
    }
  }
  return id;
}

TransitionChoice TransitionBudget::choose(const std::optional<std::string>& requested, double seconds,
                                          bool incomingNeedsDecoder, bool sharesDecoderWithOutgoing,
                                          std::int64_t liveDecoders, std::int64_t maxDecoders) {
  if (!(seconds > 0)) {
    return {};
  }
  const auto effect = TransitionRegistry::findOrDefault(requested);
  if (effect.id == "fadeThroughBlack") {
    return {effect, std::nullopt};
  }
  if (incomingNeedsDecoder && !sharesDecoderWithOutgoing && liveDecoders >= maxDecoders) {
    // The fade through black never shows both pictures at once, so it needs one decoder.
    return {TransitionRegistry::findOrDefault("fadeThroughBlack"),
            fmt::format("{} needs a second decoder and {} are already open; fading through black instead",
                        effect.displayName, maxDecoders)};
  }
  return {effect, std::nullopt};
}

bool TransitionBudget::hasRoomForHandover(const std::vector<std::string>& runningIncoming, const std::string& incoming,
                                          std::int64_t maxConcurrent) {
  if (std::find(runningIncoming.begin(), runningIncoming.end(), incoming) != runningIncoming.end()) {
    return true;
  }
  const std::set<std::string> distinct(runningIncoming.begin(), runningIncoming.end());
  return static_cast<std::int64_t>(distinct.size()) < std::max<std::int64_t>(maxConcurrent, 1);
}

}  // namespace korvalen
