// Library thumbnails: the poster frame of a video or the picture itself, scaled to fit
// 320x180 with its proportions (no bars), and a contact sheet of many thumbnails that a
// person looks at to see a whole library at once. Written with the ffmpeg executable.
// Thread: any; nothing is shared.
#pragma once

#include "engine/compositor.hpp"
#include "engine/media_decoder.hpp"

#include <cstdint>
#include <expected>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace korvalen::engine {

namespace Thumbnails {

inline constexpr std::int64_t boxWidth = 320;
inline constexpr std::int64_t boxHeight = 180;

struct Size {
  std::int64_t width = 0;
  std::int64_t height = 0;
  bool operator==(const Size&) const = default;
};

// The largest size with the picture's proportions that fits the box, at least 1x1; the
// picture's own size when it is already smaller. A picture of no size gets the box.
Size fitting(std::int64_t width, std::int64_t height, std::int64_t intoWidth = boxWidth,
             std::int64_t intoHeight = boxHeight);

// Whether a frame, as a measuring pass samples it, shows something: neither nearly black
// nor flat (a fade-in's opening, a title card of one colour).
bool hasContent(const DecodedFrame& frame);

// The poster frame's time: the first frame at or after `target` (seconds into the file)
// that has content, else the one at `target`. Feed it every frame in order.
class PosterChooser {
 public:
  explicit PosterChooser(double target) : target_(target) {}
  void observe(const DecodedFrame& frame);
  [[nodiscard]] double seconds() const { return chosen_.value_or(fallback_.value_or(0)); }
  [[nodiscard]] bool settled() const { return chosen_.has_value(); }

 private:
  double target_;
  std::optional<double> fallback_;
  std::optional<double> chosen_;
};

// The first picture a decoder with these options gives, with what it says of the file. A
// file whose headers promise a picture its stream does not hold is an error here.
struct FirstFrame {
  MediaInfo info;
  Picture picture;
};
[[nodiscard]] std::expected<FirstFrame, std::string> firstFrame(const std::filesystem::path& file,
                                                                const DecoderOptions& options);

// The file's picture at `seconds`, at `size` (the file's size fitted to the box).
[[nodiscard]] std::expected<Picture, std::string> posterFrame(const std::filesystem::path& media, double seconds,
                                                              Size size);
// Decodes any picture file (a thumbnail) as it is.
[[nodiscard]] std::expected<Picture, std::string> readPicture(const std::filesystem::path& file);
// Writes a picture as JPEG or PNG, by `out`'s ending. The error is one line.
[[nodiscard]] std::expected<void, std::string> writePicture(const std::filesystem::path& ffmpeg, const Picture& picture,
                                                            const std::filesystem::path& out);

struct SheetTile {
  std::optional<Picture> picture;  // absent: a placeholder
  std::string label;               // drawn under the tile
};
// Tiles in rows of up to `columns`, each in a 320x180 cell with its label beneath.
[[nodiscard]] std::expected<void, std::string> writeContactSheet(const std::filesystem::path& ffmpeg,
                                                                 const std::vector<SheetTile>& tiles,
                                                                 const std::filesystem::path& out,
                                                                 std::int64_t columns = 4);

}  // namespace Thumbnails
}  // namespace korvalen::engine
