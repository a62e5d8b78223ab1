// Decoders shared by the videos of one program that show the same file and stretch at once,
// as two monitors of different sizes showing one item do: each video takes the frames at its
// own pace from a short history, a video that joins starts at the newest frame (so the
// monitors stay together), and the decoder is closed when the last video lets go. Frames are
// kept as decoded and converted when drawn, so handing one to a second video costs a
// reference, not a picture.
//
// Thread: the loop's; the decoders' own threads only fill their queues.
#pragma once

#include "engine/media_decoder.hpp"

#include <cstdint>
#include <deque>
#include <expected>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <tuple>

namespace korvalen::engine {

class VideoFeed {
 public:
  explicit VideoFeed(std::shared_ptr<MediaDecoder> decoder) : decoder_(std::move(decoder)) {}

  // Where a video stands in the feed: the number of the frame it took last.
  struct Cursor {
    std::uint64_t taken = 0;
  };
  // A cursor for a video that joins now: its first frame is the newest one.
  [[nodiscard]] Cursor join() const { return Cursor{newest_ > 0 ? newest_ - 1 : 0}; }
  // The frame after `cursor` into `frame`: from the history when another video took it
  // already (the oldest kept when this one fell behind), else the decoder's next. False when
  // none is ready yet (without `wait`) or the stretch ended; the error when decoding failed.
  std::expected<bool, std::string> next(Cursor& cursor, DecodedFrame& frame, bool wait);

 private:
  // Enough for videos one or two frames apart; each is a reference to a decoded picture.
  static constexpr std::size_t kept = 3;
  std::shared_ptr<MediaDecoder> decoder_;
  std::deque<std::pair<std::uint64_t, DecodedFrame>> recent_;
  std::uint64_t newest_ = 0;
};

class VideoFeeds {
 public:
  struct Key {
    std::filesystem::path file;
    double start = 0;
    double end = 0;
    bool operator<(const Key& other) const {
      return std::tie(file, start, end) < std::tie(other.file, other.start, other.end);
    }
  };
  // The feed some video of the program plays from now, or null.
  [[nodiscard]] std::shared_ptr<VideoFeed> find(const Key& key);
  // `feed` is the one to share for `key` from now on.
  void add(const Key& key, const std::shared_ptr<VideoFeed>& feed);
  // Feeds some video still plays from.
  [[nodiscard]] std::size_t live();

 private:
  void forgetEnded();
  std::map<Key, std::weak_ptr<VideoFeed>> feeds_;
};

}  // namespace korvalen::engine
