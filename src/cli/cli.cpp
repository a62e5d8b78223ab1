#include "cli/cli.hpp"

#include "cli/arguments.hpp"
#include "cli/commands.hpp"
#include "core/diagnostics/redact.hpp"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <ostream>

namespace korvalen::cli {
namespace {

// CLI11 error texts may span lines; we show one.
std::string oneLine(std::string text) {
  std::replace(text.begin(), text.end(), '\n', ' ');
  while (!text.empty() && text.back() == ' ') {
    text.pop_back();
  }
  return text;
}

}  // namespace

int run(const std::vector<std::string>& arguments, Context& context) {
  CLI::App app{"Korvalen: video wallpapers and screensaver, from the terminal", "korvalen"};
  app.set_help_all_flag("--help-all", "Show the help of every command");
  Action action;
  addPlanCommands(app, context, action);
  addPlaceCommand(app, context, action);
  addPlaylistCommands(app, context, action);
  addSettingsCommands(app, context, action);
  addFlashCommands(app, context, action);
  addPolicyCommands(app, context, action);
  addMediaCommands(app, context, action);
  addLibraryCommands(app, context, action);
  addToolsCommands(app, context, action);
  addPlannerCommands(app, context, action);
  addWallpaperCommands(app, context, action);
  addPingPongCommands(app, context, action);
  addSaverCommand(app, context, action);
  addDemoCommand(app, context, action);

  const auto spelled = withLongOptions(arguments);
  std::vector<std::string> reversed(spelled.rbegin(), spelled.rend());
  try {
    app.parse(reversed);
  } catch (const CLI::CallForHelp& help) {
    return app.exit(help, context.out, context.err);
  } catch (const CLI::CallForAllHelp& help) {
    return app.exit(help, context.out, context.err);
  } catch (const CLI::ParseError& error) {
    context.err << "korvalen: " << oneLine(error.what()) << " (see korvalen --help)\n";
    return badUsage;
  }
  if (!action) {
    // A command group without its command: say what there is to choose from.
    const CLI::App* group = &app;
    while (!group->get_subcommands().empty()) {
      group = group->get_subcommands().front();
    }
    std::string names;
    for (const auto* command : group->get_subcommands({})) {
      names += (names.empty() ? "" : ", ") + command->get_name();
    }
    context.err << "korvalen: choose a command: " << names << " (see korvalen --help)\n";
    return badUsage;
  }
  return runGuarded(action, context);
}

int runGuarded(const std::function<int()>& action, Context& context) {
  try {
    return action();
  } catch (const UsageError& error) {
    context.err << "korvalen: " << Redact::secrets(oneLine(error.what())) << "\n";
    return badUsage;
  } catch (const Failure& error) {
    // Failures may quote a tool's own output, which may quote a link with a key in it.
    context.err << "korvalen: " << Redact::secrets(oneLine(error.what())) << "\n";
    return failed;
  } catch (const std::exception& error) {
    // A net under every command: a fault of ours is one line, never an abort.
    context.err << "korvalen: internal error: " << Redact::secrets(oneLine(error.what())) << "\n";
    return failed;
  } catch (...) {
    context.err << "korvalen: internal error: an unknown exception\n";
    return failed;
  }
}

}  // namespace korvalen::cli
