// SoundTrack on the FFmpeg libraries (libavformat, libavcodec, libswresample).
#include "engine/sound_track.hpp"

#include "engine/media/ffmpeg_support.hpp"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libswresample/swresample.h>
}

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <limits>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

namespace korvalen::engine {
namespace {

struct ResamplerFreer {
  void operator()(SwrContext* resampler) const { swr_free(&resampler); }
};

constexpr double aheadSeconds = 0.5;  // decoded ahead of the device
constexpr double driftSeconds = 0.2;  // further from the picture than this, the sound jumps

}  // namespace

struct SoundTrack::State {
  std::filesystem::path file;
  Opened opened;
  std::unique_ptr<SwrContext, ResamplerFreer> resampler;
  std::unique_ptr<AVPacket, PacketFreer> packet{av_packet_alloc()};
  std::unique_ptr<AVFrame, FrameFreer> decoded{av_frame_alloc()};
  AVRational timeBase{1, 1};
  std::int64_t firstPts = 0;
  int rate = 48000;
  double start = 0;
  double end = std::numeric_limits<double>::infinity();
  double length = std::numeric_limits<double>::infinity();  // of the stretch, when known

  mutable std::mutex mutex;
  std::condition_variable changed;
  std::vector<float> ring;  // stereo frames, a power of two long
  std::size_t readAt = 0;   // in frames, counting up forever; the ring index is the remainder
  std::size_t writeAt = 0;
  double fraction = 0;  // between the frame at `readAt` and the next
  double played = 0;    // seconds of the track
  double level = 0;
  double speed = 1;
  bool playing = false;
  bool stopping = false;
  std::optional<double> jumpTo;  // seconds into the stretch
  std::thread worker;

  [[nodiscard]] std::size_t capacity() const { return ring.size() / 2; }
  [[nodiscard]] std::size_t buffered() const { return writeAt - readAt; }

  void decode();
  // Goes to `seconds` into the stretch: the ring emptied, the decoder and resampler flushed.
  // Returns the file time of the first sample wanted.
  double seek(double seconds);
  // Puts converted frames into the ring, waiting for room; false when stopping or jumping.
  bool push(const float* frames, std::size_t count);
};

double SoundTrack::State::seek(double seconds) {
  const double target = start + std::max(seconds, 0.0);
  const auto timestamp = firstPts + static_cast<std::int64_t>(std::floor(target / av_q2d(timeBase)));
  av_seek_frame(opened.format.get(), opened.stream, timestamp, AVSEEK_FLAG_BACKWARD);
  avcodec_flush_buffers(opened.codec.get());
  swr_init(resampler.get());  // drops what it held
  return target;
}

bool SoundTrack::State::push(const float* frames, std::size_t count) {
  std::unique_lock lock(mutex);
  std::size_t done = 0;
  while (done < count) {
    changed.wait(lock, [&] { return stopping || jumpTo || buffered() < capacity(); });
    if (stopping || jumpTo) {
      return false;
    }
    const std::size_t room = std::min(capacity() - buffered(), count - done);
    for (std::size_t i = 0; i < room; ++i) {
      const std::size_t at = ((writeAt + i) % capacity()) * 2;
      ring[at] = frames[(done + i) * 2];
      ring[at + 1] = frames[(done + i) * 2 + 1];
    }
    writeAt += room;
    done += room;
  }
  return true;
}

void SoundTrack::State::decode() {
  std::vector<float> converted;
  double wanted = seek(0);  // file time of the first sample to keep
  bool heardThisPass = false;
  while (true) {
    {
      std::unique_lock lock(mutex);
      if (stopping) {
        return;
      }
      if (jumpTo) {
        const double to = *jumpTo;
        jumpTo.reset();
        readAt = writeAt = 0;
        fraction = 0;
        lock.unlock();
        wanted = seek(to);
        heardThisPass = true;
      }
    }
    bool passEnded = false;
    const int read = av_read_frame(opened.format.get(), packet.get());
    if (read < 0) {
      passEnded = true;
    } else if (packet->stream_index == opened.stream && avcodec_send_packet(opened.codec.get(), packet.get()) >= 0) {
      while (!passEnded && avcodec_receive_frame(opened.codec.get(), decoded.get()) >= 0) {
        const auto pts = decoded->best_effort_timestamp != AV_NOPTS_VALUE ? decoded->best_effort_timestamp : firstPts;
        const double at = static_cast<double>(pts - firstPts) * av_q2d(timeBase);
        if (at >= end) {
          passEnded = true;
          break;
        }
        const int room = swr_get_out_samples(resampler.get(), decoded->nb_samples);
        converted.resize(static_cast<std::size_t>(std::max(room, 0)) * 2);
        auto* out = reinterpret_cast<std::uint8_t*>(converted.data());
        const int made = swr_convert(resampler.get(), &out, room,
                                     const_cast<const std::uint8_t**>(decoded->extended_data), decoded->nb_samples);
        if (made <= 0) {
          continue;
        }
        // Samples before the wanted time (after a seek to a packet boundary) are dropped.
        const auto skip =
            static_cast<std::size_t>(std::clamp(std::ceil((wanted - at) * rate), 0.0, static_cast<double>(made)));
        const auto count = static_cast<std::size_t>(made) - skip;
        if (count > 0) {
          heardThisPass = true;
          // The end of the stretch may fall inside this frame.
          const auto keep = std::min<double>(static_cast<double>(count),
                                             std::max(0.0, (end - at) * rate - static_cast<double>(skip)));
          if (!push(converted.data() + skip * 2, static_cast<std::size_t>(keep))) {
            break;
          }
        }
        av_frame_unref(decoded.get());
      }
    }
    av_packet_unref(packet.get());
    if (passEnded) {
      if (!heardThisPass) {
        // Nothing in the stretch can be heard: wait to be stopped rather than spin.
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return stopping || jumpTo.has_value(); });
        continue;
      }
      heardThisPass = false;
      wanted = seek(0);
    }
  }
}

SoundTrack::SoundTrack(std::unique_ptr<State> state) : state_(std::move(state)) {}

SoundTrack::~SoundTrack() {
  stop();
}

std::expected<std::shared_ptr<SoundTrack>, std::string> SoundTrack::open(const std::filesystem::path& file,
                                                                         double start, double end, int sampleRate) {
  auto opened = openFile(file, AVMEDIA_TYPE_AUDIO);
  if (!opened) {
    return std::unexpected(opened.error());
  }
  if (opened->stream < 0) {
    return nullptr;
  }
  auto state = std::make_unique<State>();
  state->file = file;
  state->opened = std::move(*opened);
  const auto* stream = state->opened.format->streams[state->opened.stream];
  state->timeBase = stream->time_base;
  state->firstPts = stream->start_time != AV_NOPTS_VALUE ? stream->start_time : 0;
  state->rate = std::clamp(sampleRate, 8000, 384000);
  state->start = std::isfinite(start) ? std::max(start, 0.0) : 0.0;
  state->end = std::isfinite(end) && end > state->start ? end : std::numeric_limits<double>::infinity();
  const auto* format = state->opened.format.get();
  if (std::isfinite(state->end)) {
    state->length = state->end - state->start;
  } else if (format->duration > 0) {
    state->length = static_cast<double>(format->duration) / AV_TIME_BASE - state->start;
  }
  const auto* codec = state->opened.codec.get();
  AVChannelLayout stereo = AV_CHANNEL_LAYOUT_STEREO;
  AVChannelLayout input{};
  // Some files say how many channels but not which: take the usual layout for that many.
  if (codec->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
    av_channel_layout_default(&input, codec->ch_layout.nb_channels);
  } else {
    av_channel_layout_copy(&input, &codec->ch_layout);
  }
  SwrContext* resampler = nullptr;
  const bool ready = swr_alloc_set_opts2(&resampler, &stereo, AV_SAMPLE_FMT_FLT, state->rate, &input, codec->sample_fmt,
                                         codec->sample_rate, 0, nullptr) >= 0 &&
                     swr_init(resampler) >= 0;
  av_channel_layout_uninit(&input);
  if (!ready) {
    swr_free(&resampler);
    return std::unexpected(fmt::format("{}: its sound cannot be converted for playing", file.string()));
  }
  state->resampler.reset(resampler);
  std::size_t frames = 1;
  while (static_cast<double>(frames) < aheadSeconds * state->rate) {
    frames *= 2;
  }
  state->ring.assign(frames * 2, 0.0F);
  auto* raw = state.get();
  raw->worker = std::thread([raw] { raw->decode(); });
  return std::make_shared<SoundTrack>(std::move(state));
}

void SoundTrack::setLevel(double level) {
  std::lock_guard lock(state_->mutex);
  state_->level = std::isfinite(level) ? std::clamp(level, 0.0, 1.0) : 0.0;
}

void SoundTrack::setRate(double rate) {
  std::lock_guard lock(state_->mutex);
  state_->speed = std::isfinite(rate) && rate > 0 ? std::min(rate, 4.0) : 1.0;
}

void SoundTrack::play() {
  std::lock_guard lock(state_->mutex);
  state_->playing = !state_->stopping;
}

void SoundTrack::pause() {
  std::lock_guard lock(state_->mutex);
  state_->playing = false;
}

void SoundTrack::stop() {
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
    state_->playing = false;
  }
  state_->changed.notify_all();
  if (state_->worker.joinable()) {
    state_->worker.join();
  }
}

double SoundTrack::position() const {
  std::lock_guard lock(state_->mutex);
  return state_->played;
}

void SoundTrack::follow(double seconds) {
  auto& s = *state_;
  {
    std::lock_guard lock(s.mutex);
    if (s.stopping || !std::isfinite(seconds) || std::abs(s.played - seconds) <= driftSeconds) {
      return;
    }
    s.played = seconds;
    s.jumpTo = std::isfinite(s.length) && s.length > 0 ? std::fmod(std::max(seconds, 0.0), s.length) : seconds;
  }
  s.changed.notify_all();
}

void SoundTrack::mixInto(std::span<float> stereo) {
  auto& s = *state_;
  std::unique_lock lock(s.mutex);
  if (!s.playing) {
    return;
  }
  const std::size_t frames = stereo.size() / 2;
  const auto level = static_cast<float>(s.level);
  const std::size_t size = s.capacity();
  std::size_t advanced = 0;
  for (std::size_t i = 0; i < frames; ++i) {
    // Two frames are needed to blend between; short of them, the rest is silence.
    if (s.buffered() < 2) {
      break;
    }
    const std::size_t here = (s.readAt % size) * 2;
    const std::size_t next = ((s.readAt + 1) % size) * 2;
    const auto t = static_cast<float>(s.fraction);
    stereo[i * 2] += level * (s.ring[here] + (s.ring[next] - s.ring[here]) * t);
    stereo[i * 2 + 1] += level * (s.ring[here + 1] + (s.ring[next + 1] - s.ring[here + 1]) * t);
    s.fraction += s.speed;
    const auto whole = static_cast<std::size_t>(s.fraction);
    s.fraction -= static_cast<double>(whole);
    s.readAt += std::min(whole, s.buffered());
    advanced += whole;
  }
  s.played += static_cast<double>(advanced) / s.rate;
  lock.unlock();
  s.changed.notify_all();
}

}  // namespace korvalen::engine
