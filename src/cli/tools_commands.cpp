// `korvalen tools status|update`: the downloader kept current in the Korvalen folder.
#include "cli/arguments.hpp"
#include "cli/commands.hpp"
#include "cli/interrupts.hpp"
#include "core/app/tool_updates.hpp"
#include "core/library/link_download.hpp"
#include "core/support/paths.hpp"
#include "core/support/text.hpp"
#include "engine/library/link_fetch.hpp"
#include "engine/process.hpp"
#include "engine/tools/tool_updater.hpp"

#include <fmt/format.h>

#include <ostream>

namespace korvalen::cli {
namespace {

namespace fs = std::filesystem;
using Outcome = engine::ToolUpdateResult::Outcome;

// The release location and key: given, else the environment's, else the downloader's own
// releases and the key the project ships.
engine::ToolUpdate updateRequest(const std::string& from, const std::string& key, bool install, Context& context) {
  engine::ToolUpdate request;
  request.releases =
      !from.empty() ? from
                    : context.environment("KORVALEN_TOOL_RELEASES").value_or(std::string(ToolUpdates::defaultReleases));
  const auto keyFile = !key.empty() ? key : context.environment("KORVALEN_TOOL_KEY").value_or("");
  if (!keyFile.empty()) {
    std::error_code error;
    if (!fs::is_regular_file(keyFile, error)) {
      throw UsageError(
          fmt::format("{}: {} is not a readable key file", key.empty() ? "KORVALEN_TOOL_KEY" : "--key", keyFile));
    }
    request.key = keyFile;
  }
  request.tools = toolsFolder(context);
  request.searchPath = context.environment("PATH").value_or("");
  request.now = context.now();
  request.install = install;
  request.stop = &interrupted;
  return request;
}

std::string said(const engine::ToolUpdateResult& result) {
  switch (result.outcome) {
    case Outcome::installed:
      return result.previous ? fmt::format("installed yt-dlp {} (was {})", result.version, *result.previous)
                             : fmt::format("installed yt-dlp {}", result.version);
    case Outcome::waiting:
      return fmt::format("yt-dlp {} is waiting: korvalen tools update installs it", result.version);
    case Outcome::upToDate:
      break;
  }
  return fmt::format("yt-dlp {} is up to date", result.version);
}

int update(const std::string& from, const std::string& key, bool checkOnly, bool asJson, Context& context) {
  auto request = updateRequest(from, key, !checkOnly, context);
  const InterruptCatcher catcher;
  const auto result = engine::updateDownloader(request);
  if (!result) {
    throw Failure(result.error());
  }
  if (asJson) {
    json::Json out = json::Json::object();
    out["outcome"] = result->outcome == Outcome::installed ? "installed"
                     : result->outcome == Outcome::waiting ? "waiting"
                                                           : "upToDate";
    out["version"] = result->version;
    if (const auto& previous = result->previous; previous.has_value()) {
      out["previous"] = *previous;
    }
    context.out << json::pretty(out);
  } else {
    context.out << said(*result) << "\n";
  }
  return ok;
}

int status(bool asJson, Context& context) {
  const auto tools = toolsFolder(context);
  const auto state = engine::readToolState(tools);
  const auto searchPath = context.environment("PATH").value_or("");
  const auto inUse = engine::findDownloader(tools, searchPath);
  std::error_code error;
  const bool managed = inUse && fs::equivalent(*inUse, tools / ToolUpdates::programName, error);
  std::optional<std::string> version = managed ? state.version : std::nullopt;
  if (inUse && !version) {
    if (const auto done = engine::run(*inUse, {"--version"}); done && done->exitCode == 0) {
      version = text::trimWhitespaceAndNewlines(done->output);
    }
  }
  const bool waiting = version && state.latestVersion && ToolUpdates::isVersion(*version) &&
                       ToolUpdates::compareVersions(*state.latestVersion, *version) > 0;
  if (asJson) {
    json::Json out = json::Json::object();
    out["source"] = !inUse ? "none" : managed ? "managed" : "system";
    if (inUse) {
      out["path"] = inUse->string();
    }
    if (version) {
      out["version"] = *version;
    }
    if (state.lastChecked) {
      out["lastChecked"] = ISO8601::plain().format(*state.lastChecked);
    }
    if (state.latestVersion) {
      out["latestVersion"] = *state.latestVersion;
    }
    out["updateWaiting"] = waiting;
    context.out << json::pretty(out);
    return ok;
  }
  context.out << fmt::format(
      "downloader    {}\n",
      !inUse    ? "none: install yt-dlp (apt-get install yt-dlp) or run korvalen tools update"
      : managed ? fmt::format("yt-dlp {}, the managed copy ({})", version.value_or("?"), inUse->string())
                : fmt::format("yt-dlp {}, the system's ({})", version.value_or("?"), inUse->string()));
  context.out << fmt::format("last checked  {}\n",
                             state.lastChecked ? fmt::format("{} at {}", ISO8601::plain().format(*state.lastChecked),
                                                             state.releases.value_or("?"))
                                               : "never");
  context.out << fmt::format("update        {}\n",
                             waiting ? fmt::format("yt-dlp {} is waiting", *state.latestVersion) : "none waiting");
  return ok;
}

}  // namespace

fs::path toolsFolder(const Context& context) {
  return paths::korvalenFolder(paths::homeFolder(context.environment), context.environment) / "tools";
}

void updateDownloaderIfDue(const KorvalenSettings& settings, Context& context) {
  if (!settings.tools.autoUpdateDownloader) {
    return;
  }
  const auto tools = toolsFolder(context);
  if (!ToolUpdates::checkDue(engine::readToolState(tools).lastChecked, context.now())) {
    return;
  }
  try {
    const auto result = engine::updateDownloader(updateRequest("", "", true, context));
    if (!result) {
      context.err << "note: the downloader update check failed (downloading with the one there is): " << result.error()
                  << "\n";
    } else if (result->outcome == Outcome::installed) {
      context.err << "note: " << said(*result) << "\n";
    }
  } catch (const std::exception& error) {
    context.err << "note: the downloader update check failed: " << error.what() << "\n";
  }
}

void addToolsCommands(CLI::App& app, Context& context, Action& action) {
  auto* group = app.add_subcommand("tools", "The external downloader (yt-dlp), kept current in the Korvalen folder");
  group->require_subcommand(1);
  {
    auto asJson = std::make_shared<bool>(false);
    auto* command = group->add_subcommand("status", "The downloader in use, where it comes from, the last check");
    command->add_flag("--json", *asJson, "Machine-readable output");
    command->callback(
        [&context, &action, asJson] { action = [&context, asJson] { return status(*asJson, context); }; });
  }
  {
    struct Options {
      std::string from;
      std::string key;
      bool check = false;
      bool asJson = false;
    };
    auto options = std::make_shared<Options>();
    auto* command = group->add_subcommand(
        "update", "Install the latest release, its checksum file's signature and the program's checksum verified");
    command->add_option("--from", options->from,
                        "Release location (default: KORVALEN_TOOL_RELEASES, else yt-dlp's own releases)");
    command->add_option("--key", options->key,
                        "Pinned public key (default: KORVALEN_TOOL_KEY, else the key Korvalen ships)");
    command->add_flag("--check", options->check, "Only check, and remember what was found");
    command->add_flag("--json", options->asJson, "Machine-readable output");
    command->callback([&context, &action, options] {
      action = [&context, options] {
        return update(options->from, options->key, options->check, options->asJson, context);
      };
    });
  }
}

}  // namespace korvalen::cli
