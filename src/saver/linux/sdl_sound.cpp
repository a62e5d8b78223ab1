#include "saver/linux/sdl_sound.hpp"

#include "core/diagnostics/log.hpp"

#include <SDL2/SDL.h>

#include <algorithm>
#include <mutex>
#include <span>
#include <vector>

namespace korvalen::host {
namespace {

constexpr int outputRate = 48000;

class SdlSound final : public engine::SoundOutput {
 public:
  SdlSound() = default;
  ~SdlSound() override {
    if (device_ != 0) {
      SDL_CloseAudioDevice(device_);  // waits for the callback to finish
    }
    SDL_QuitSubSystem(SDL_INIT_AUDIO);
  }
  SdlSound(const SdlSound&) = delete;
  SdlSound& operator=(const SdlSound&) = delete;

  [[nodiscard]] int sampleRate() const override { return outputRate; }

  void add(const std::shared_ptr<engine::SoundSource>& source) override {
    if (!open()) {
      return;
    }
    {
      std::lock_guard lock(mutex_);
      sources_.push_back(source);
    }
    SDL_PauseAudioDevice(device_, 0);
  }

  void remove(const engine::SoundSource& source) override {
    bool empty = false;
    {
      // Once this returns, the callback is not using the source.
      std::lock_guard lock(mutex_);
      std::erase_if(sources_, [&](const auto& held) { return held.get() == &source; });
      empty = sources_.empty();
    }
    if (empty && device_ != 0) {
      SDL_PauseAudioDevice(device_, 1);
    }
  }

 private:
  bool open() {
    if (device_ != 0 || failed_) {
      return device_ != 0;
    }
    SDL_AudioSpec wanted{};
    wanted.freq = outputRate;
    wanted.format = AUDIO_F32SYS;
    wanted.channels = 2;
    wanted.samples = 1024;
    wanted.callback = [](void* self, Uint8* stream, int length) { static_cast<SdlSound*>(self)->fill(stream, length); };
    wanted.userdata = this;
    SDL_AudioSpec got{};
    // No changes allowed: SDL converts to whatever the device takes.
    device_ = SDL_OpenAudioDevice(nullptr, 0, &wanted, &got, 0);
    if (device_ == 0) {
      failed_ = true;
      log::writef("host", log::Level::info, "no sound: {}", SDL_GetError());
    }
    return device_ != 0;
  }

  void fill(Uint8* stream, int length) {
    const std::span samples(reinterpret_cast<float*>(stream), static_cast<std::size_t>(length) / sizeof(float));
    std::fill(samples.begin(), samples.end(), 0.0F);
    std::lock_guard lock(mutex_);
    for (const auto& source : sources_) {
      source->mixInto(samples);
    }
    for (auto& sample : samples) {
      sample = std::clamp(sample, -1.0F, 1.0F);
    }
  }

  SDL_AudioDeviceID device_ = 0;
  bool failed_ = false;
  std::mutex mutex_;
  std::vector<std::shared_ptr<engine::SoundSource>> sources_;
};

}  // namespace

std::shared_ptr<engine::SoundOutput> makeSdlSound() {
  if (SDL_InitSubSystem(SDL_INIT_AUDIO) != 0) {
    log::writef("host", log::Level::info, "no sound: {}", SDL_GetError());
    return nullptr;
  }
  return std::make_shared<SdlSound>();
}

}  // namespace korvalen::host
