// A video's sound on Linux: the file's audio decoded and resampled ahead on its own thread
// to the output's rate, played at a level and a rate (slower plays lower, as a tape does),
// looped over the same stretch as the picture, and kept with the picture by `follow`.
// The host's audio device mixes every playing track through `SoundSource`.
//
// Thread: `mixInto` on the device's thread; everything else on the main thread.
#pragma once

#include <expected>
#include <filesystem>
#include <memory>
#include <span>
#include <string>

namespace korvalen::engine {

// Sound the device mixes: interleaved stereo float samples at the output's rate.
class SoundSource {
 public:
  virtual ~SoundSource() = default;
  // Adds this source's next samples into `stereo` (left, right, left, ...).
  virtual void mixInto(std::span<float> stereo) = 0;
};

// The host's audio device. Main thread.
class SoundOutput {
 public:
  virtual ~SoundOutput() = default;
  [[nodiscard]] virtual int sampleRate() const = 0;
  virtual void add(const std::shared_ptr<SoundSource>& source) = 0;
  virtual void remove(const SoundSource& source) = 0;
};

class SoundTrack final : public SoundSource {
 public:
  // The stretch from `start` to `end` seconds of the file (an end at or before the start
  // runs to the end of the file), paused at its start. Null when the file has no sound;
  // one line naming the file when it has sound that cannot be decoded.
  [[nodiscard]] static std::expected<std::shared_ptr<SoundTrack>, std::string> open(const std::filesystem::path& file,
                                                                                    double start, double end,
                                                                                    int sampleRate);
  ~SoundTrack() override;
  SoundTrack(const SoundTrack&) = delete;
  SoundTrack& operator=(const SoundTrack&) = delete;

  // Within 0...1; at 0 or less the track is silent but keeps time.
  void setLevel(double level);
  // Samples consumed per sample played: 0.5 plays at half speed, an octave lower.
  void setRate(double rate);
  void play();
  void pause();
  // Ends decoding; the track is silent from then on. Idempotent.
  void stop();
  // Seconds of the track played so far, across loops, in the track's own time.
  [[nodiscard]] double position() const;
  // Keeps the sound with the picture: more than a fifth of a second away from `seconds`
  // played of the picture, the track jumps there.
  void follow(double seconds);

  void mixInto(std::span<float> stereo) override;

  struct State;
  explicit SoundTrack(std::unique_ptr<State> state);

 private:
  std::unique_ptr<State> state_;
};

}  // namespace korvalen::engine
