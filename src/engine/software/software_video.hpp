// A video on the software engine: decoded ahead on the decoder's thread, shown by the loop's
// clock at the video's rate, its stretch looped; its sound, when it has a level and there is
// an output, decoded on a thread of its own and kept with the picture.
#pragma once

#include "core/rendering/trim_range.hpp"
#include "core/scene/main_loop.hpp"
#include "core/scene/media.hpp"
#include "engine/software/saver_loop.hpp"
#include "engine/sound_track.hpp"

#include <filesystem>
#include <memory>

namespace korvalen::engine {

std::shared_ptr<scene::VideoWallpaper> makeSoftwareVideo(std::filesystem::path file, TrimRange trim, SaverLoop& loop,
                                                         std::shared_ptr<SoundOutput> output);

}  // namespace korvalen::engine
