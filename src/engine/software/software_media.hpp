// The software engine's media: videos, decoded pictures and the animations that show them.
#pragma once

#include "core/scene/main_loop.hpp"
#include "core/scene/media.hpp"
#include "engine/software/saver_loop.hpp"
#include "engine/software/video_feeds.hpp"
#include "engine/sound_track.hpp"

#include <memory>

namespace korvalen::engine {

class SoftwareMedia final : public scene::MediaFactory {
 public:
  // With `feeds`, its videos share decoders with the program's other videos of the same
  // file and stretch.
  SoftwareMedia(SaverLoop& loop, std::shared_ptr<SoundOutput> sound, std::shared_ptr<VideoFeeds> feeds = nullptr)
      : loop_(loop), sound_(std::move(sound)), feeds_(std::move(feeds)) {}
  std::shared_ptr<scene::VideoWallpaper> makeVideo(const std::filesystem::path& file, const TrimRange& trim) override;
  std::expected<std::shared_ptr<scene::DecodedImage>, std::string> loadImage(
      const std::filesystem::path& file) override;
  std::shared_ptr<scene::AnimatedWallpaper> makeAnimation(const std::shared_ptr<scene::DecodedImage>& image) override;

 private:
  SaverLoop& loop_;
  std::shared_ptr<SoundOutput> sound_;
  std::shared_ptr<VideoFeeds> feeds_;
};

}  // namespace korvalen::engine
