#include "support/clips.hpp"

#include "engine/process.hpp"
#include "engine/video_frames.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

namespace korvalen::testing {
namespace {

constexpr int width = 64;
constexpr int height = 48;
constexpr int firstLevel = 16;
constexpr int levelStep = 14;

}  // namespace

std::filesystem::path ffmpegOnPath() {
  const char* path = std::getenv("PATH");  // NOLINT(concurrency-mt-unsafe): nothing sets it meanwhile
  auto found = engine::findExecutable("ffmpeg", path == nullptr ? "/usr/bin:/bin" : path);
  EXPECT_TRUE(found.has_value()) << "these tests need ffmpeg on PATH (scripts/setup.sh installs it)";
  return found.value_or("ffmpeg");
}

void makeMedia(const std::filesystem::path& ffmpeg, const std::filesystem::path& path,
               const std::vector<std::string>& arguments) {
  std::filesystem::create_directories(path.parent_path());
  std::vector<std::string> all{"-v", "error", "-y"};
  all.insert(all.end(), arguments.begin(), arguments.end());
  all.push_back(path.string());
  const auto made = engine::run(ffmpeg, all);
  EXPECT_TRUE(made && made->exitCode == 0) << (made ? made->error : made.error());
}

void makeNumberedClip(const std::filesystem::path& ffmpeg, const std::filesystem::path& path, int frames, int rate) {
  const auto level = [](const std::string& digit) {
    return std::to_string(firstLevel) + "+" + std::to_string(levelStep) + "*" + digit;
  };
  const auto source = "color=c=black:s=" + std::to_string(width) + "x" + std::to_string(height) +
                      ":r=" + std::to_string(rate) + ",format=gray,geq=lum='if(lt(X\\," + std::to_string(width / 2) +
                      ")\\," + level("floor(N/16)") + "\\," + level("mod(N\\,16)") + ")'";
  const auto made =
      engine::run(ffmpeg, {"-v", "error", "-f", "lavfi", "-i", source, "-frames:v", std::to_string(frames), "-c:v",
                           "libx264", "-pix_fmt", "yuv420p", path.string()});
  ASSERT_TRUE(made && made->exitCode == 0) << (made ? made->error : made.error());
}

std::vector<int> frameNumbers(const std::filesystem::path& ffmpeg, const std::filesystem::path& path) {
  auto frames = engine::VideoFrames::open(ffmpeg, path);
  EXPECT_TRUE(frames.has_value()) << frames.error();
  std::vector<int> numbers;
  if (!frames) {
    return numbers;
  }
  while (true) {
    const auto more = frames->next();
    EXPECT_TRUE(more.has_value()) << more.error();
    if (!more || !*more) {
      return numbers;
    }
    numbers.push_back(numberInFrame(frames->pixels().data(), frames->stride()));
  }
}

int numberInFrame(const std::uint8_t* pixels, std::int64_t stride) {
  // The mean green level of each half, away from the edge between them.
  const auto digit = [&](int from, int to) {
    double sum = 0;
    for (int y = 0; y < height; ++y) {
      for (int x = from; x < to; ++x) {
        sum += pixels[static_cast<std::size_t>(y * stride + x * 4 + 1)];
      }
    }
    const double mean = sum / ((to - from) * height);
    return static_cast<int>(std::lround((mean - firstLevel) / levelStep));
  };
  return digit(0, width / 2 - 4) * 16 + digit(width / 2 + 4, width);
}

}  // namespace korvalen::testing
