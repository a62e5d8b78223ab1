// A video on the software engine: decoded ahead on the decoder's thread, shown by the loop's
// clock at the video's rate, its stretch looped; its sound, when it has a level and there is
// an output, decoded on a thread of its own and kept with the picture. With `feeds`, videos
// of the same file and stretch shown at once share one decoder.
#pragma once

#include "core/rendering/trim_range.hpp"
#include "core/scene/main_loop.hpp"
#include "core/scene/media.hpp"
#include "engine/software/saver_loop.hpp"
#include "engine/software/video_feeds.hpp"
#include "engine/sound_track.hpp"

#include <filesystem>
#include <memory>

namespace korvalen::engine {

std::shared_ptr<scene::VideoWallpaper> makeSoftwareVideo(std::filesystem::path file, TrimRange trim, SaverLoop& loop,
                                                         std::shared_ptr<SoundOutput> output,
                                                         std::shared_ptr<VideoFeeds> feeds = nullptr);

}  // namespace korvalen::engine
