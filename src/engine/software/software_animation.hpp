// An animated (or still) picture on a layer of its own, running on the layer's clock.
#pragma once

#include "core/scene/main_loop.hpp"
#include "core/scene/media.hpp"
#include "engine/software/saver_loop.hpp"
#include "engine/software/software_image.hpp"

#include <memory>

namespace korvalen::engine {

std::shared_ptr<scene::AnimatedWallpaper> makeSoftwareAnimation(std::shared_ptr<SoftwareImage> image,
                                                                const SaverLoop& loop);

}  // namespace korvalen::engine
