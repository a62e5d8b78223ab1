#include "engine/software/software_media.hpp"

#include "engine/media_decoder.hpp"
#include "engine/software/software_animation.hpp"
#include "engine/software/software_image.hpp"
#include "engine/software/software_video.hpp"

namespace korvalen::engine {

namespace {
constexpr std::size_t maximumPictureFrames = 2000;
}  // namespace

std::shared_ptr<scene::VideoWallpaper> SoftwareMedia::makeVideo(const std::filesystem::path& file,
                                                                const TrimRange& trim) {
  return makeSoftwareVideo(file, trim, loop_, sound_, feeds_);
}

std::expected<std::shared_ptr<scene::DecodedImage>, std::string> SoftwareMedia::loadImage(
    const std::filesystem::path& file) {
  auto decoder = MediaDecoder::open(file);
  if (!decoder) {
    return std::unexpected(decoder.error());
  }
  std::vector<Picture> frames;
  std::vector<double> delays;
  DecodedFrame frame;
  while (frames.size() < maximumPictureFrames) {
    const auto more = (*decoder)->next(frame);
    if (!more) {
      return std::unexpected(more.error());
    }
    if (!*more) {
      break;
    }
    delays.push_back(frame.duration);
    frames.push_back(pictureOf(std::move(frame)));
    frame = DecodedFrame{};
  }
  if (frames.empty()) {
    return std::unexpected(file.string() + ": no picture in it could be decoded");
  }
  return std::make_shared<SoftwareImage>(std::move(frames), std::move(delays));
}

std::shared_ptr<scene::AnimatedWallpaper> SoftwareMedia::makeAnimation(
    const std::shared_ptr<scene::DecodedImage>& image) {
  return makeSoftwareAnimation(std::static_pointer_cast<SoftwareImage>(image), loop_);
}

}  // namespace korvalen::engine
