#include "engine/software/software_animation.hpp"

#include "engine/software/software_layer.hpp"

namespace korvalen::engine {
namespace {

class SoftwareAnimation final : public scene::AnimatedWallpaper {
 public:
  SoftwareAnimation(std::shared_ptr<SoftwareImage> image, const SaverLoop& loop)
      : image_(std::move(image)), layer_(std::make_shared<SoftwareLayer>(loop, Area{})) {
    layer_->content = [image = image_](double localTime) { return image->frameAt(localTime); };
  }
  void install(scene::Layer& on) override { on.addSublayer(layer_); }
  void remove(scene::Layer&) override { layer_->removeFromSuperlayer(); }
  scene::Layer& layer() override { return *layer_; }

 private:
  std::shared_ptr<SoftwareImage> image_;
  std::shared_ptr<SoftwareLayer> layer_;
};

}  // namespace

std::shared_ptr<scene::AnimatedWallpaper> makeSoftwareAnimation(std::shared_ptr<SoftwareImage> image,
                                                                const SaverLoop& loop) {
  return std::make_shared<SoftwareAnimation>(std::move(image), loop);
}

}  // namespace korvalen::engine
