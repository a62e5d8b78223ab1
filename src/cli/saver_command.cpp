// `korvalen saver --headless`: the real screensaver controller on the real engine with no
// display, writing the composed screen as PNG frames or a video a person can watch.
#include "cli/arguments.hpp"
#include "cli/commands.hpp"
#include "core/diagnostics/log.hpp"
#include "core/screensaver/saver_controller.hpp"
#include "engine/frame_writer.hpp"
#include "engine/linux/software_saver.hpp"

#include <fmt/format.h>

#include <cmath>
#include <ostream>

namespace korvalen::cli {
namespace {

struct SaverOptions {
  bool headless = false;
  bool preview = false;
  std::string size;
  std::string seconds;
  std::string out;
  std::string plan;
  std::string screen;
  std::string fps = "10";
  std::string ffmpeg;
};

// While alive, the controller's lines go to the tool's standard error as they stand.
class LogToStream {
 public:
  explicit LogToStream(std::ostream& stream) {
    log::setBackend([&stream](const log::Line& line) { stream << log::formatLine(line) << "\n" << std::flush; });
  }
  ~LogToStream() { log::setBackend(nullptr); }
  LogToStream(const LogToStream&) = delete;
  LogToStream& operator=(const LogToStream&) = delete;
};

int runHeadless(const SaverOptions& o, Context& context) {
  const auto size = parseSize(o.size, "--size");
  if (size.width < 1 || size.height < 1 || size.width > 8192 || size.height > 8192) {
    throw UsageError(fmt::format("--size: expected WxH with each side from 1 to 8192, got \"{}\"", o.size));
  }
  const double seconds = parseInRange(o.seconds, "--seconds", 0.01, 3600);
  const double fps = parseInRange(o.fps, "--fps", 1, 120);
  if (o.out.empty()) {
    throw UsageError("--out: expected a folder for PNG frames or a FILE.mp4");
  }
  const auto screen =
      o.screen.empty() ? fmt::format("display-0|{}x{}", size.width, size.height) : requireText(o.screen, "--screen");
  const auto ffmpeg = locateFfmpeg(o.ffmpeg, context);
  // --plan stands for the variable the screensaver reads, so the location rule is the same.
  auto environment = context.environment;
  if (!o.plan.empty()) {
    environment = [outer = context.environment, plan = o.plan](std::string_view name) -> std::optional<std::string> {
      return name == "KORVALEN_SAVER_PLAN" ? std::optional<std::string>(plan) : outer(name);
    };
  }
  auto writer = engine::FrameWriter::start(ffmpeg, o.out, size.width, size.height, fps);
  if (!writer) {
    throw Failure(writer.error());
  }
  const LogToStream logs(context.err);
  engine::SoftwareSaver saver(engine::SoftwareScreen{
      {static_cast<double>(size.width), static_cast<double>(size.height)}, screen, o.preview, std::nullopt});
  auto controller = saver::SaverController::make(saver.platform(environment));
  controller->startAnimation();
  engine::Picture picture(size.width, size.height);
  // The saver's own clock decides what each frame shows, however long drawing it takes.
  const auto frames = std::max<std::int64_t>(1, std::llround(seconds * fps));
  std::int64_t written = 0;
  for (; written < frames; ++written) {
    saver.loop().runUntil(static_cast<double>(written) / fps);
    saver.draw(picture);
    if (!writer->write(picture)) {
      break;
    }
  }
  controller->stopAnimation();
  controller.reset();
  if (auto finished = writer->finish(); !finished) {
    throw Failure(finished.error());
  }
  context.out << fmt::format("wrote {} frame(s) of {}x{} at {} fps to {}\n", written, size.width, size.height,
                             formatNumber(fps), o.out);
  return ok;
}

}  // namespace

void addSaverCommand(CLI::App& app, Context& context, Action& action) {
  auto options = std::make_shared<SaverOptions>();
  auto* command = app.add_subcommand("saver", "Run the screensaver: headless into frames or a video");
  command->add_flag("--headless", options->headless, "No display: write the screen to --out");
  command->add_option("--size", options->size, "WIDTHxHEIGHT of the screen")->required();
  command->add_option("--seconds", options->seconds, "How long to run, on the saver's own clock")->required();
  command->add_option("--out", options->out, "A folder for frame-00000.png, ... or FILE.mp4")->required();
  command->add_option("--plan", options->plan, "The plan (default: as the screensaver finds it)");
  command->add_option("--screen", options->screen, "This screen's stable identifier (default: display-0|WxH)");
  command->add_option("--fps", options->fps, "Frames written per second of the saver's clock (default 10)");
  command->add_option("--ffmpeg", options->ffmpeg, "The ffmpeg executable that writes the output");
  command->add_flag("--preview", options->preview, "Run as the small preview, which places in its own bounds");
  command->callback([&context, &action, options] {
    action = [&context, options] {
      if (!options->headless) {
        throw UsageError("saver: only --headless is available here; it writes the screen to --out");
      }
      return runHeadless(*options, context);
    };
  });
}

}  // namespace korvalen::cli
