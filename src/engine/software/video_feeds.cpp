#include "engine/software/video_feeds.hpp"

namespace korvalen::engine {

std::expected<bool, std::string> VideoFeed::next(Cursor& cursor, DecodedFrame& frame, bool wait) {
  if (newest_ > cursor.taken && !recent_.empty()) {
    auto found = recent_.begin();
    while (found != recent_.end() && found->first <= cursor.taken) {
      ++found;
    }
    frame = found->second;
    cursor.taken = found->first;
    return true;
  }
  DecodedFrame made;
  const auto more = wait ? decoder_->next(made) : decoder_->tryNext(made);
  if (!more || !*more) {
    return more;
  }
  recent_.emplace_back(++newest_, made);
  if (recent_.size() > kept) {
    recent_.pop_front();
  }
  frame = std::move(made);
  cursor.taken = newest_;
  return true;
}

std::shared_ptr<VideoFeed> VideoFeeds::find(const Key& key) {
  forgetEnded();
  const auto found = feeds_.find(key);
  return found != feeds_.end() ? found->second.lock() : nullptr;
}

void VideoFeeds::add(const Key& key, const std::shared_ptr<VideoFeed>& feed) {
  forgetEnded();
  feeds_[key] = feed;
}

std::size_t VideoFeeds::live() {
  forgetEnded();
  return feeds_.size();
}

void VideoFeeds::forgetEnded() {
  std::erase_if(feeds_, [](const auto& entry) { return entry.second.expired(); });
}

}  // namespace korvalen::engine
