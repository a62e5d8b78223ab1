#include "engine/frame_writer.hpp"

#include "engine/ffmpeg_file.hpp"

#include <fmt/format.h>

#include <vector>

namespace korvalen::engine {

std::expected<FrameWriter, std::string> FrameWriter::start(const std::filesystem::path& ffmpeg,
                                                           const std::filesystem::path& out, std::int64_t width,
                                                           std::int64_t height, double fps, const std::string& filter) {
  const auto name = out.string();
  std::vector<std::string> arguments{"-v",
                                     "error",
                                     "-y",
                                     "-f",
                                     "rawvideo",
                                     "-pix_fmt",
                                     "bgra",
                                     "-s",
                                     fmt::format("{}x{}", width, height),
                                     "-r",
                                     fmt::format("{}", fps),
                                     "-i",
                                     "-"};
  if (name.ends_with(".gif")) {
    arguments.insert(arguments.end(), {"-vf", "split[a][b];[a]palettegen[p];[b][p]paletteuse"});
    arguments.push_back(ffmpegFile(out));
  } else if (name.ends_with(".jpg") || name.ends_with(".png")) {
    // One picture: the first frame written.
    if (!filter.empty()) {
      arguments.insert(arguments.end(), {"-vf", filter});
    }
    arguments.insert(arguments.end(), {"-frames:v", "1", "-update", "1"});
    if (name.ends_with(".jpg")) {
      arguments.insert(arguments.end(), {"-q:v", "3"});
    }
    arguments.push_back(ffmpegFile(out));
  } else if (name.ends_with(".mp4")) {
    arguments.insert(arguments.end(), {"-c:v", "libx264", "-pix_fmt", "yuv420p", "-preset", "veryfast"});
    arguments.push_back(ffmpegFile(out));
  } else {
    std::error_code error;
    std::filesystem::create_directories(out, error);
    if (error) {
      return std::unexpected(fmt::format("could not create the folder {}: {}", name, error.message()));
    }
    arguments.insert(arguments.end(), {"-start_number", "0", "-f", "image2"});
    arguments.push_back(ffmpegFile(out / "frame-%05d.png"));
  }
  auto child = ChildProcess::start(ffmpeg, arguments, ChildProcess::Input::pipe);
  if (!child) {
    return std::unexpected(child.error());
  }
  return FrameWriter(std::move(*child), out);
}

bool FrameWriter::write(const Picture& frame) {
  const std::string_view bytes(reinterpret_cast<const char*>(frame.bgra.data()), frame.bgra.size());
  return child_.write(bytes, output_, error_);
}

std::expected<void, std::string> FrameWriter::finish() {
  if (child_.wait(output_, error_) != 0) {
    return std::unexpected(
        fmt::format("ffmpeg could not write {}: {}", out_.string(), error_.substr(0, error_.find('\n'))));
  }
  return {};
}

}  // namespace korvalen::engine
