#include "engine/software/software_saver.hpp"

#include "engine/software/fixed_identity.hpp"
#include "engine/software/software_media.hpp"
#include "engine/software/software_surface.hpp"

namespace korvalen::engine {

struct SoftwareSaver::Parts {
  Parts(const SoftwareScreen& screen, SaverLoop& loop, std::shared_ptr<SoundOutput> sound,
        std::shared_ptr<VideoFeeds> feeds)
      : view(screen, loop), surface(loop), identity(screen.id), media(loop, std::move(sound), std::move(feeds)) {}
  SoftwareView view;
  SoftwareSurface surface;
  FixedIdentity identity;
  SoftwareMedia media;
};

SoftwareSaver::SoftwareSaver(const SoftwareScreen& screen, std::shared_ptr<SoundOutput> sound,
                             std::shared_ptr<VideoFeeds> feeds)
    : loop_(std::make_unique<SaverLoop>()),
      parts_(std::make_unique<Parts>(screen, *loop_, std::move(sound), std::move(feeds))) {}

SoftwareSaver::~SoftwareSaver() {
  // Loads still under way post to the loop: let them land before it goes.
  loop_->setLive(false);
  loop_->runUntil(loop_->mediaTime());
}

saver::Platform SoftwareSaver::platform(paths::Environment environment) {
  return saver::Platform{
      parts_->view, parts_->surface, parts_->identity, parts_->media, *loop_, std::move(environment), [] {
        return paths::recordedHomeFolder();
      }};
}

bool SoftwareSaver::draw(const Canvas& target, bool onlyWhenChanged) {
  const auto& root = *parts_->view.root;
  if (onlyWhenChanged) {
    const auto key =
        sceneKey(root, loop_->mediaTime()) ^ static_cast<std::uint64_t>(target.width * 65537 + target.height);
    if (drawn_ == key) {
      return false;
    }
    drawn_ = key;
  } else {
    drawn_.reset();
  }
  compose(root, loop_->mediaTime(), target);
  return true;
}

void SoftwareSaver::setScreen(const SoftwareScreen& screen) {
  auto& view = parts_->view;
  view.screen_ = screen;
  view.root->frame = Area{0, 0, screen.size.width, screen.size.height};
}

void SoftwareSaver::leaveWindow() {
  parts_->view.inWindow = false;
}

}  // namespace korvalen::engine