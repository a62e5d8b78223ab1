#include "engine/library/library_thumbnails.hpp"

#include "engine/frame_writer.hpp"
#include "engine/media_decoder.hpp"
#include "engine/process.hpp"
#include "engine/working_folder.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>

namespace korvalen::engine::Thumbnails {
namespace {

namespace fs = std::filesystem;

constexpr std::int64_t labelHeight = 26;
constexpr std::int64_t gap = 8;

Picture toPicture(DecodedFrame&& frame) {
  Picture picture;
  picture.width = frame.width;
  picture.height = frame.height;
  picture.bgra = std::move(frame.pixels);
  return picture;
}

// A drawtext filter's own quoting: inside single quotes only the quote itself is special.
std::string quotedForFilter(const std::string& text) {
  std::string out = "'";
  for (const char c : text) {
    out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  }
  return out + "'";
}

}  // namespace

std::expected<FirstFrame, std::string> firstFrame(const fs::path& file, const DecoderOptions& options) {
  auto decoder = MediaDecoder::open(file, options);
  if (!decoder) {
    return std::unexpected(decoder.error());
  }
  DecodedFrame frame;
  auto got = (*decoder)->next(frame);
  if (!got) {
    return std::unexpected(got.error());
  }
  if (!*got) {
    return std::unexpected(fmt::format("{}: no picture in it could be decoded", file.string()));
  }
  return FirstFrame{(*decoder)->info(), toPicture(std::move(frame))};
}

Size fitting(std::int64_t width, std::int64_t height, std::int64_t intoWidth, std::int64_t intoHeight) {
  if (width < 1 || height < 1) {
    return {intoWidth, intoHeight};
  }
  if (width <= intoWidth && height <= intoHeight) {
    return {width, height};
  }
  const double scale = std::min(static_cast<double>(intoWidth) / static_cast<double>(width),
                                static_cast<double>(intoHeight) / static_cast<double>(height));
  const auto side = [scale](std::int64_t length, std::int64_t box) {
    return std::clamp<std::int64_t>(std::llround(static_cast<double>(length) * scale), 1, box);
  };
  return {side(width, intoWidth), side(height, intoHeight)};
}

bool hasContent(const DecodedFrame& frame) {
  // Rec. 601 luma of each sampled pixel in whole numbers: its mean says "nearly black", its
  // spread "flat". Thresholds in 8-bit levels, well above the noise of a compressed black.
  constexpr double darkest = 16;
  constexpr double flattest = 8;
  const auto pixels = frame.width * frame.height;
  if (pixels < 1 || frame.pixels.size() < static_cast<std::size_t>(pixels * 4)) {
    return false;
  }
  std::uint64_t sum = 0;
  std::uint64_t squares = 0;
  for (std::size_t at = 0; at < static_cast<std::size_t>(pixels) * 4; at += 4) {
    const std::uint64_t luma =
        (29U * frame.pixels[at] + 150U * frame.pixels[at + 1] + 77U * frame.pixels[at + 2] + 128U) >> 8U;
    sum += luma;
    squares += luma * luma;
  }
  const double mean = static_cast<double>(sum) / static_cast<double>(pixels);
  const double variance = static_cast<double>(squares) / static_cast<double>(pixels) - mean * mean;
  return mean >= darkest && std::sqrt(std::max(variance, 0.0)) >= flattest;
}

void PosterChooser::observe(const DecodedFrame& frame) {
  if (chosen_ || frame.seconds + 1e-6 < target_) {
    return;
  }
  if (!fallback_) {
    fallback_ = frame.seconds;
  }
  if (hasContent(frame)) {
    chosen_ = frame.seconds;
  }
}

std::expected<Picture, std::string> posterFrame(const fs::path& media, double seconds, Size size) {
  DecoderOptions options;
  options.start = std::max(seconds, 0.0);
  options.width = size.width;
  options.height = size.height;
  options.sampling = DecoderOptions::Sampling::area;
  options.queue = 1;
  auto first = firstFrame(media, options);
  if (!first && seconds > 0) {
    // A time past the last frame (a duration the file overstates): its first frame.
    options.start = 0;
    first = firstFrame(media, options);
  }
  if (!first) {
    return std::unexpected(first.error());
  }
  return std::move(first->picture);
}

std::expected<Picture, std::string> readPicture(const fs::path& file) {
  DecoderOptions options;
  options.queue = 1;
  auto first = firstFrame(file, options);
  if (!first) {
    return std::unexpected(first.error());
  }
  return std::move(first->picture);
}

std::expected<void, std::string> writePicture(const fs::path& ffmpeg, const Picture& picture, const fs::path& out) {
  auto writer = FrameWriter::start(ffmpeg, out, picture.width, picture.height, 1);
  if (!writer) {
    return std::unexpected(writer.error());
  }
  writer->write(picture);
  return writer->finish();
}

std::expected<void, std::string> writeContactSheet(const fs::path& ffmpeg, const std::vector<SheetTile>& tiles,
                                                   const fs::path& out, std::int64_t columns) {
  const auto count = static_cast<std::int64_t>(tiles.size());
  const auto across = std::clamp<std::int64_t>(columns, 1, std::max<std::int64_t>(count, 1));
  const auto rows = std::max<std::int64_t>((count + across - 1) / across, 1);
  const auto cellWidth = boxWidth + gap;
  const auto cellHeight = boxHeight + labelHeight + gap;
  Picture sheet(across * cellWidth + gap, rows * cellHeight + gap);
  for (std::size_t at = 0; at < sheet.bgra.size(); at += 4) {
    sheet.bgra[at] = sheet.bgra[at + 1] = sheet.bgra[at + 2] = 0x22;  // opaque dark grey
  }
  for (std::int64_t i = 0; i < count; ++i) {
    const auto& tile = tiles[static_cast<std::size_t>(i)];
    const auto left = gap + (i % across) * cellWidth;
    const auto top = gap + (i / across) * cellHeight;
    if (!tile.picture || tile.picture->width < 1 || tile.picture->height < 1) {
      // A placeholder: a mid-grey box where no picture could be made.
      for (std::int64_t y = top; y < top + boxHeight; ++y) {
        for (std::int64_t x = left; x < left + boxWidth; ++x) {
          sheet.set(x, y, 0x55, 0x55, 0x55);
        }
      }
      continue;
    }
    // Centred in its cell at its own size (thumbnails already fit the box).
    const auto& picture = *tile.picture;
    const auto size = fitting(picture.width, picture.height);
    // Whole pixels, so the thumbnail is drawn one to one.
    const std::int64_t x = left + (boxWidth - size.width) / 2;
    const std::int64_t y = top + (boxHeight - size.height) / 2;
    const auto x0 = static_cast<double>(x);
    const auto y0 = static_cast<double>(y);
    const double scaleX = static_cast<double>(picture.width) / static_cast<double>(size.width);
    const double scaleY = static_cast<double>(picture.height) / static_cast<double>(size.height);
    drawPicture(sheet.canvas(), picture, Mapping{-x0 * scaleX, scaleX}, Mapping{-y0 * scaleY, scaleY},
                Area{x0, y0, static_cast<double>(size.width), static_cast<double>(size.height)});
  }
  // Labels are drawn by ffmpeg's drawtext, each from a file of its own so no title needs
  // escaping; without a usable font the sheet is written without them.
  const auto scratch = ScratchFolder::make("korvalen-sheet");
  std::string filters;
  if (scratch) {
    for (std::int64_t i = 0; i < count; ++i) {
      const auto file = scratch->path() / fmt::format("label-{}.txt", i);
      std::ofstream(file) << tiles[static_cast<std::size_t>(i)].label;
      filters += fmt::format("{}drawtext=textfile={}:x={}:y={}:fontsize=15:fontcolor=white", filters.empty() ? "" : ",",
                             quotedForFilter(file.string()), gap + (i % across) * cellWidth + 2,
                             gap + (i / across) * cellHeight + boxHeight + 6);
    }
  }
  std::expected<void, std::string> written;
  if (!filters.empty()) {
    auto writer = FrameWriter::start(ffmpeg, out, sheet.width, sheet.height, 1, filters);
    if (writer) {
      writer->write(sheet);
      written = writer->finish();
    } else {
      written = std::unexpected(writer.error());
    }
  }
  if (filters.empty() || !written) {
    written = writePicture(ffmpeg, sheet, out);
  }
  return written;
}

}  // namespace korvalen::engine::Thumbnails
