// An animated (or still) picture on a layer of its own, running on the layer's clock.
#pragma once

#include "core/screensaver/saver_platform.hpp"
#include "engine/software/saver_loop.hpp"
#include "engine/software/software_image.hpp"

#include <memory>

namespace korvalen::engine {

std::shared_ptr<saver::AnimatedWallpaper> makeSoftwareAnimation(std::shared_ptr<SoftwareImage> image,
                                                                const SaverLoop& loop);

}  // namespace korvalen::engine
