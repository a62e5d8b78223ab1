#include "engine/media/ffmpeg_support.hpp"

#include <fmt/format.h>

#include <array>
#include <mutex>

namespace korvalen::engine {

std::string errorText(int code) {
  std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
  av_strerror(code, text.data(), text.size());
  return text.data();
}

void quietLibraries() {
  static std::once_flag once;
  std::call_once(once, [] { av_log_set_level(AV_LOG_QUIET); });
}

std::expected<Opened, std::string> openFile(const std::filesystem::path& file, AVMediaType type) {
  quietLibraries();
  const auto name = file.string();
  const bool video = type == AVMEDIA_TYPE_VIDEO;
  AVFormatContext* raw = nullptr;
  // A "file:" URL, so a name with a colon is never taken for a protocol.
  if (const int opened = avformat_open_input(&raw, ("file:" + name).c_str(), nullptr, nullptr); opened < 0) {
    if (opened == AVERROR(ENOENT)) {
      return std::unexpected(fmt::format("{}: there is no such file", name));
    }
    if (opened == AVERROR_INVALIDDATA) {
      return std::unexpected(fmt::format("{}: it is not a video or picture that can be read", name));
    }
    return std::unexpected(fmt::format("{}: it could not be opened ({})", name, errorText(opened)));
  }
  Opened result;
  result.format.reset(raw);
  if (const int found = avformat_find_stream_info(raw, nullptr); found < 0) {
    return std::unexpected(fmt::format("{}: it is not media that can be read ({})", name, errorText(found)));
  }
  const AVCodec* decoder = nullptr;
  const int stream = av_find_best_stream(raw, type, -1, -1, &decoder, 0);
  if (stream < 0 || decoder == nullptr) {
    if (!video && stream == AVERROR_STREAM_NOT_FOUND) {
      return result;
    }
    return std::unexpected(video ? fmt::format("{}: it has no video or picture in it", name)
                                 : fmt::format("{}: its sound has no decoder here", name));
  }
  result.stream = stream;
  const char* what = video ? "video" : "sound";
  result.codec.reset(avcodec_alloc_context3(decoder));
  if (!result.codec || avcodec_parameters_to_context(result.codec.get(), raw->streams[stream]->codecpar) < 0) {
    return std::unexpected(fmt::format("{}: its {} could not be prepared for decoding", name, what));
  }
  result.codec->thread_count = 0;  // as many as the machine has, as ffmpeg itself does
  if (const int ready = avcodec_open2(result.codec.get(), decoder, nullptr); ready < 0) {
    return std::unexpected(
        fmt::format("{}: its {} {} cannot be decoded ({})", name, decoder->name, what, errorText(ready)));
  }
  return result;
}

}  // namespace korvalen::engine
