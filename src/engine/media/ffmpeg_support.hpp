// What the FFmpeg-based parts of the Linux engine share: opening a file's video or sound
// for decoding with errors a person can act on, and owners for the libraries' objects.
// Private to the engine's Linux sources.
#pragma once

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <expected>
#include <filesystem>
#include <memory>
#include <string>

namespace korvalen::engine {

std::string errorText(int code);
// The libraries' own chatter would land on the user's terminal; our errors say what matters.
void quietLibraries();

struct FormatCloser {
  void operator()(AVFormatContext* format) const { avformat_close_input(&format); }
};
struct CodecCloser {
  void operator()(AVCodecContext* codec) const { avcodec_free_context(&codec); }
};
struct PacketFreer {
  void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct FrameFreer {
  void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};

// An opened file: its container, the chosen stream and its decoder.
struct Opened {
  std::unique_ptr<AVFormatContext, FormatCloser> format;
  std::unique_ptr<AVCodecContext, CodecCloser> codec;
  int stream = -1;  // -1: a file without sound, when sound was asked for
};

// The file's best stream of `type` (video or audio), ready to decode. A file without video
// is an error; a file without sound is not (the stream is -1).
std::expected<Opened, std::string> openFile(const std::filesystem::path& file, AVMediaType type);

}  // namespace korvalen::engine
