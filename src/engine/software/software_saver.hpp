// The screensaver's engine on Linux: the controller's layers, placement and filters on a CPU
// compositor, videos and pictures decoded in-process, and a single-threaded main loop whose
// clock is its own (see `SaverLoop`). Everything one screen needs, assembled.
//
// Thread: the main loop's. Decoder threads hand frames over through the decoder's queue and
// finished loads through `SaverLoop::finishWork`.
#pragma once

#include "core/screensaver/host_view.hpp"
#include "engine/compositor.hpp"
#include "engine/software/saver_loop.hpp"
#include "engine/software/software_layer.hpp"
#include "engine/software/software_view.hpp"
#include "engine/software/video_feeds.hpp"
#include "engine/sound_track.hpp"

#include <memory>
#include <optional>

namespace korvalen::engine {

// Everything the controller needs, for one screen of a given size, without a display.
class SoftwareSaver {
 public:
  // With an output, videos whose sound level is above 0 play their sound through it; with
  // `feeds`, videos share decoders with the program's other screens showing the same.
  explicit SoftwareSaver(const SoftwareScreen& screen, std::shared_ptr<SoundOutput> sound = nullptr,
                         std::shared_ptr<VideoFeeds> feeds = nullptr);
  ~SoftwareSaver();
  SoftwareSaver(const SoftwareSaver&) = delete;
  SoftwareSaver& operator=(const SoftwareSaver&) = delete;

  [[nodiscard]] saver::Platform platform(paths::Environment environment);
  SaverLoop& loop() { return *loop_; }
  // The screen as it looks at the loop's present time.
  void draw(Picture& target) { draw(target.canvas()); }
  // The same into any canvas of the view's size; with `onlyWhenChanged`, nothing is drawn
  // when the picture is the one drawn last time. Returns whether it drew.
  bool draw(const Canvas& target, bool onlyWhenChanged = false);
  // The view's bounds or screen changed; the controller is told separately.
  void setScreen(const SoftwareScreen& screen);
  // The view's window is gone.
  void leaveWindow();

 private:
  struct Parts;
  std::unique_ptr<SaverLoop> loop_;
  std::unique_ptr<Parts> parts_;
  std::optional<std::uint64_t> drawn_;  // the scene key last drawn
};

}  // namespace korvalen::engine
