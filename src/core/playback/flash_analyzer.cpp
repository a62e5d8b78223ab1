#include "core/playback/flash_analyzer.hpp"

#include "core/support/precondition.hpp"

#include <algorithm>
#include <cmath>

namespace korvalen {

const std::array<double, 256>& FlashAnalyzer::linear() {
  // A function-local static is initialised once, and safely under concurrent first use.
  static const std::array<double, 256> table = [] {
    std::array<double, 256> values{};
    for (std::size_t v = 0; v < values.size(); ++v) {
      const double c = static_cast<double>(v) / 255.0;
      values[v] = c <= 0.04045 ? c / 12.92 : std::pow((c + 0.055) / 1.055, 2.4);
    }
    return values;
  }();
  return table;
}

bool FlashAnalyzer::observe(double at, double luminance) {
  // Clamped, but a NaN stays NaN.
  double level = luminance;
  if (luminance <= 0) {
    level = 0;
  } else if (luminance > 1) {
    level = 1;
  }
  if (!last_) {
    last_ = level;
    extreme_ = level;
  } else {
    const double change = level - extreme_;
    const bool qualifies = std::abs(change) >= minimumSwing && std::min(extreme_, level) < darkerBelow;
    const int towards = change > 0 ? 1 : (change < 0 ? -1 : 0);
    if (towards != 0) {
      if (qualifies) {
        if (direction_ == -towards) {
          ordered_ = ordered_ && (transitions_.empty() || transitions_.back() <= at);
          transitions_.push_back(at);
        }
        direction_ = towards;
        extreme_ = level;
      } else if (direction_ == towards) {
        // Follow the swing to its peak or trough; a small move against it never pulls
        // the extreme back.
        extreme_ = level;
      }
    }
    last_ = level;
  }
  // Times normally arrive in order, and then only a prefix can be too old; that keeps this
  // cheap even when very short frames fill a second with thousands of reversals.
  const auto stale = [at](double time) { return at - time > 1.000001; };
  if (ordered_) {
    transitions_.erase(transitions_.begin(), std::find_if_not(transitions_.begin(), transitions_.end(), stale));
  } else {
    std::erase_if(transitions_, stale);
    ordered_ = std::is_sorted(transitions_.begin(), transitions_.end());
  }
  flashesInLastSecond_ = static_cast<std::int64_t>(transitions_.size() / 2);
  peakFlashesPerSecond_ = std::max(peakFlashesPerSecond_, flashesInLastSecond_);
  if (transitions_.size() >= 8) {
    violated_ = true;
    return true;
  }
  return false;
}

namespace {

// Each channel's share of relative luminance per byte value, in fixed point, so a pixel
// costs three table reads and three integer additions, and the floating-point work happens
// at the end. Each channel has its own scale, as fine as 64 pixels of its largest share
// allow in 64 bits: even the darkest blue is then held to about 3e-14 of its value, and
// every sum is exact, so the mean is that close to the exact one for any frame.
constexpr int blueBits = 60;                   // 0.0722 of 2^60 is below 2^56.3
constexpr int greenBits = 56;                  // 0.7152 of 2^56 is below 2^55.6
constexpr int redBits = 58;                    // 0.2126 of 2^58 is below 2^55.8
constexpr std::int64_t chunkPixels = 64;       // 64 of any share stay below 2^62.3
__extension__ typedef unsigned __int128 Wide;  // g++ and clang both have it
constexpr double blueUnit = 0x1p-60;
constexpr double greenUnit = 0x1p-56;
constexpr double redUnit = 0x1p-58;

struct WeightedTables {
  std::array<std::uint64_t, 256> blue{};
  std::array<std::uint64_t, 256> green{};
  std::array<std::uint64_t, 256> red{};
};

const WeightedTables& weighted() {
  static const WeightedTables tables = [] {
    WeightedTables made;
    const auto& table = FlashAnalyzer::linear();
    const auto fixed = [](double share, int bits) {
      return static_cast<std::uint64_t>(std::llround(std::ldexp(share, bits)));
    };
    for (std::size_t i = 0; i < 256; ++i) {
      made.blue[i] = fixed(0.0722 * table[i], blueBits);
      made.green[i] = fixed(0.7152 * table[i], greenBits);
      made.red[i] = fixed(0.2126 * table[i], redBits);
    }
    return made;
  }();
  return tables;
}

}  // namespace

double FlashAnalyzer::meanLuminance(std::span<const std::uint8_t> bytes, std::int64_t width, std::int64_t height,
                                    std::int64_t stride, std::int64_t step) {
  if (width < 1 || height < 1 || step < 1) {
    return 0;
  }
  const auto& w = weighted();
  const auto size = static_cast<std::int64_t>(bytes.size());
  std::int64_t pixelStep = 0;
  KORVALEN_PRECONDITION(!__builtin_mul_overflow(step, std::int64_t{4}, &pixelStep));
  // The whole frame's sums stay exact: at most 2^56.3 a pixel, far inside 128 bits.
  Wide blueTotal = 0;
  Wide greenTotal = 0;
  Wide redTotal = 0;
  std::int64_t count = 0;
  for (std::int64_t y = 0; y < height; y += step) {
    std::int64_t row = 0;
    KORVALEN_PRECONDITION(!__builtin_mul_overflow(y, stride, &row));
    if (row < 0 || row + 2 >= size) {
      continue;  // the row starts past the bytes there are
    }
    // Pixels of the row whose three colour bytes are all there.
    const std::int64_t pixels = std::min((width + step - 1) / step, (size - 3 - row) / pixelStep + 1);
    const std::uint8_t* at = bytes.data() + row;
    for (std::int64_t done = 0; done < pixels;) {
      const std::int64_t end = std::min(done + chunkPixels, pixels);
      std::uint64_t blue = 0;
      std::uint64_t green = 0;
      std::uint64_t red = 0;
      for (; done < end; ++done, at += pixelStep) {
        blue += w.blue[at[0]];
        green += w.green[at[1]];
        red += w.red[at[2]];
      }
      blueTotal += blue;
      greenTotal += green;
      redTotal += red;
    }
    count += pixels;
  }
  if (count == 0) {
    return 0;
  }
  const double total = static_cast<double>(blueTotal) * blueUnit + static_cast<double>(greenTotal) * greenUnit +
                       static_cast<double>(redTotal) * redUnit;
  return total / static_cast<double>(count);
}

double FlashAnalyzer::meanLuminance(const std::vector<std::uint8_t>& bytes, std::int64_t width, std::int64_t height,
                                    std::int64_t stride, std::int64_t step) {
  return meanLuminance(std::span<const std::uint8_t>(bytes), width, height, stride, step);
}

FlashAnalyzer::Judgement FlashAnalyzer::judgeLoop(const std::vector<double>& luminances,
                                                  const std::vector<double>& delays, double rate) {
  const std::size_t frames = luminances.size();
  if (frames < 2 || delays.size() != frames || !(rate > 0)) {
    return {};
  }
  double total = 0;
  for (const double delay : delays) {
    total += delay;
  }
  const double duration = total / rate;
  if (!(duration > 0)) {
    return {};
  }
  FlashAnalyzer analyzer;
  double time = 0;
  std::size_t frame = 0;
  for (int samples = 0; samples < 50'000 && time <= duration + 2.0; ++samples) {
    analyzer.observe(time, luminances[frame]);
    time += delays[frame] / rate;
    frame = (frame + 1) % frames;
  }
  return {analyzer.violated(), analyzer.peakFlashesPerSecond()};
}

double regionLuminance(std::span<const std::uint8_t> bgra, std::int64_t width, std::int64_t height, std::int64_t stride,
                       const FitRect& region) {
  if (width < 1 || height < 1) {
    return 0;
  }
  const auto edge = [](double value, std::int64_t size) {
    const double clamped = std::isfinite(value) ? std::clamp(value, 0.0, 1.0) : 0.0;
    return static_cast<std::int64_t>(std::floor(clamped * static_cast<double>(size)));
  };
  std::int64_t left = edge(region.x, width);
  std::int64_t top = edge(region.y, height);
  std::int64_t right = std::isfinite(region.width) ? edge(region.x + region.width, width) : width;
  std::int64_t bottom = std::isfinite(region.height) ? edge(region.y + region.height, height) : height;
  if (right <= left || bottom <= top) {
    left = 0;
    top = 0;
    right = width;
    bottom = height;
  }
  const std::int64_t w = right - left;
  const std::int64_t h = bottom - top;
  constexpr auto budget = static_cast<double>(regionLuminanceBudget);
  const auto step =
      std::max<std::int64_t>(1, static_cast<std::int64_t>(std::sqrt(static_cast<double>(w * h) / budget)));
  const auto offset = static_cast<std::size_t>(top * stride + left * 4);
  if (offset >= bgra.size()) {
    return 0;
  }
  return FlashAnalyzer::meanLuminance(bgra.subspan(offset), w, h, stride, step);
}

}  // namespace korvalen
