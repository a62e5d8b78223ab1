// The command groups of the tool and the text forms they share.
#pragma once

#include "cli/cli.hpp"
#include "core/rendering/video_fit.hpp"
#include "core/screensaver/saver_plan.hpp"

#include <CLI/CLI.hpp>

#include <functional>
#include <string>

namespace korvalen::cli {

// What the chosen command does once the command line parsed; returns the exit status.
using Action = std::function<int()>;

void addPlanCommands(CLI::App& app, Context& context, Action& action);
void addPlaceCommand(CLI::App& app, Context& context, Action& action);
void addDemoCommand(CLI::App& app, Context& context, Action& action);

// One line: "video /m/a.mp4 fit=fill crop=0.25,0,0.5,1 mirror-h trim=2:end".
std::string describeContent(const SaverContent& content);
// How the content for `screen` is chosen, in words.
std::string describeRule(ScreenRule rule);
// "x=0.05 y=0 width=0.9 height=1".
std::string describeRect(const FitRect& rect);
// The lines `korvalen place` prints for one placement.
std::string describePlacement(const VideoPlacement& placement, std::int64_t mediaWidth, std::int64_t mediaHeight);

}  // namespace korvalen::cli
