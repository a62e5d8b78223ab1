// `korvalen place`: where media of one size lands on a surface of another.
#include "cli/arguments.hpp"
#include "cli/commands.hpp"

#include <fmt/format.h>

#include <ostream>

namespace korvalen::cli {

std::string describeRect(const FitRect& rect) {
  return fmt::format("x={} y={} width={} height={}", formatNumber(rect.x), formatNumber(rect.y),
                     formatNumber(rect.width), formatNumber(rect.height));
}

std::string describePlacement(const VideoPlacement& placement, std::int64_t mediaWidth, std::int64_t mediaHeight) {
  return fmt::format(
      "sourceCrop   {}\n"
      "destination  {}\n"
      "distorts     {}\n"
      "source px    {}\n",
      describeRect(placement.sourceCrop), describeRect(placement.destination), placement.distorts ? "yes" : "no",
      describeRect(VideoFit::pixelSourceRect(placement.sourceCrop, mediaWidth, mediaHeight)));
}

void addPlaceCommand(CLI::App& app, Context& context, Action& action) {
  struct Options {
    std::string media, surface, fit = "fill", crop;
    bool asJson = false;
  };
  auto options = std::make_shared<Options>();
  auto* place = app.add_subcommand("place", "Show which part of the media is shown and where it lands");
  place->add_option("--media", options->media, "Media size in pixels, WIDTHxHEIGHT")->required();
  place->add_option("--surface", options->surface, "Surface size in points, WIDTHxHEIGHT")->required();
  place->add_option("--fit", options->fit, "fill, fit, stretch or center (default fill)");
  place->add_option("--crop", options->crop, "X,Y,W,H as fractions of the frame");
  place->add_flag("--json", options->asJson, "Machine-readable output");
  place->callback([&context, &action, options] {
    action = [&context, options] {
      const auto& o = *options;
      const auto media = parseSize(o.media, "--media");
      const auto surface = parseSize(o.surface, "--surface");
      const auto fit = parseFit(o.fit, "--fit");
      std::optional<CropRect> crop;
      if (!o.crop.empty()) {
        crop = parseCrop(o.crop, "--crop");
      }
      const auto placement = VideoFit::compute(media.width, media.height, surface.width, surface.height, fit, crop);
      if (o.asJson) {
        auto out = json::encode(placement);
        out["pixelSourceRect"] =
            json::encode(VideoFit::pixelSourceRect(placement.sourceCrop, media.width, media.height));
        context.out << json::pretty(out);
      } else {
        context.out << describePlacement(placement, media.width, media.height);
      }
      return ok;
    };
  });
}

}  // namespace korvalen::cli
