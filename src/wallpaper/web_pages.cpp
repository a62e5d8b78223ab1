#include "wallpaper/web_pages.hpp"

#include "core/diagnostics/log.hpp"
#include "core/diagnostics/redact.hpp"

#include <fmt/format.h>

#include <poll.h>

#include <vector>

namespace korvalen::wallpaper {

namespace {

constexpr std::string_view ownPrefix = "korvalen-web: ";
constexpr std::string_view endingPrefix = "ending: ";

std::vector<std::string> argumentsFor(const WebPageRequest& request, const WebPageState& state) {
  auto arguments = engine::webViewArguments("show", request.source, request.storage, request.width, request.height);
  arguments.insert(arguments.end(), {"--at", fmt::format("{},{}", request.x, request.y)});
  if (request.window) {
    arguments.insert(arguments.end(), {"--into", std::to_string(*request.window)});
  }
  if (request.overBackground) {
    arguments.emplace_back("--bottom");  // a surface of the same layer may end up under ours
  }
  if (!state.running) {
    arguments.emplace_back("--paused");
  }
  if (state.muted) {
    arguments.emplace_back("--muted");
  }
  if (state.fpsCap > 0) {
    arguments.insert(arguments.end(), {"--fps", std::to_string(state.fpsCap)});
  }
  return arguments;
}

}  // namespace

struct WebPages::Page {
  explicit Page(engine::ChildProcess process) : child(std::move(process)) {}
  WebPageRequest request;
  engine::ChildProcess child;
  std::unique_ptr<engine::EventLoop::Watch> watch;
  std::string output;
  std::string error;      // what came, up to the last full line
  std::string lastWords;  // why it ended, in its words, else the crash's last line
  bool ending = false;    // it said why
  WebPageState state;
};

WebPages::WebPages(engine::EventLoop& loop, std::filesystem::path program, std::function<void(const std::string&)> say,
                   std::function<void(const std::string&)> gone)
    : loop_(loop), program_(std::move(program)), say_(std::move(say)), gone_(std::move(gone)) {}

WebPages::~WebPages() {
  for (auto& [monitor, page] : pages_) {
    page->watch.reset();
  }
  pages_.clear();  // each child is ended and reaped
}

void WebPages::show(const std::string& monitor, const std::optional<WebPageRequest>& request,
                    const WebPageState& state) {
  const auto found = pages_.find(monitor);
  if (!request || (found != pages_.end() && found->second->request != *request)) {
    if (found != pages_.end()) {
      found->second->watch.reset();
      pages_.erase(found);
      gone_(monitor);
    }
    if (!request) {
      failed_.erase(monitor);
      return;
    }
  }
  if (const auto page = pages_.find(monitor); page != pages_.end()) {
    auto& shown = *page->second;
    if (shown.state.running != state.running) {
      send(shown, state.running ? "resume" : "pause");
    }
    if (shown.state.muted != state.muted) {
      send(shown, state.muted ? "mute" : "unmute");
    }
    if (shown.state.fpsCap != state.fpsCap) {
      send(shown, fmt::format("fps {}", state.fpsCap));
    }
    shown.state = state;
    return;
  }
  if (const auto failed = failed_.find(monitor); failed != failed_.end()) {
    if (failed->second == *request) {
      return;  // its still shows until something else is due, or a reload
    }
    failed_.erase(failed);
  }
  auto child = engine::ChildProcess::start(program_, argumentsFor(*request, state), engine::ChildProcess::Input::pipe);
  if (!child) {
    say_(fmt::format("monitor {}: the page of item {} cannot be shown ({}); its still shows", monitor,
                     request->source.item, child.error()));
    failed_[monitor] = *request;
    return;
  }
  auto page = std::make_unique<Page>(std::move(*child));
  page->request = *request;
  page->state = state;
  page->watch = loop_.watch(page->child.errorDescriptor(), POLLIN, [this, monitor](short) { read(monitor); });
  say_(fmt::format("monitor {}: page of item {} started (pid {}{})", monitor, request->source.item, page->child.pid(),
                   request->source.allowNetwork ? ", with the network" : ""));
  pages_[monitor] = std::move(page);
}

void WebPages::send(Page& page, const std::string& command) {
  page.child.write(command + "\n", page.output, page.error);
}

void WebPages::read(const std::string& monitor) {
  const auto found = pages_.find(monitor);
  if (found == pages_.end()) {
    return;
  }
  auto& page = *found->second;
  const bool open = page.child.pump(page.output, page.error, std::chrono::milliseconds(0));
  page.output.clear();  // it says nothing there
  std::size_t start = 0;
  for (auto end = page.error.find('\n'); end != std::string::npos; end = page.error.find('\n', start)) {
    const auto line = std::string_view(page.error).substr(start, end - start);
    if (line.starts_with(ownPrefix) && line.substr(ownPrefix.size()).starts_with(endingPrefix)) {
      page.lastWords = std::string(line.substr(ownPrefix.size() + endingPrefix.size()));
    } else if (line.starts_with(ownPrefix)) {
      // What a page did (a refused request, an error in its scripts) goes to the log, which
      // redacts credentials in the addresses it names.
      log::writef("web", log::Level::notice, "monitor {}: page of item {}: {}", monitor, page.request.source.item,
                  line.substr(ownPrefix.size()));
    } else if (!line.empty() && !page.ending) {
      page.lastWords = std::string(line.substr(0, 200));  // a crash's own words, when it had none of ours
    }
    page.ending = page.ending || (!page.lastWords.empty() && line.starts_with(ownPrefix));
    start = end + 1;
  }
  page.error.erase(0, start);
  if (!open || page.child.errorDescriptor() < 0) {
    ended(monitor);
  }
}

void WebPages::ended(const std::string& monitor) {
  const auto found = pages_.find(monitor);
  if (found == pages_.end()) {
    return;
  }
  auto page = std::move(found->second);
  pages_.erase(found);
  page->watch.reset();
  const int code = page->child.wait(page->output, page->error);
  failed_[monitor] = page->request;
  say_(fmt::format("monitor {}: page of item {} ended ({}{}); its still shows until the next item or a reload", monitor,
                   page->request.source.item,
                   code >= 128 ? fmt::format("signal {}", code - 128) : fmt::format("exit {}", code),
                   page->lastWords.empty() ? "" : fmt::format(": {}", Redact::secrets(page->lastWords))));
  gone_(monitor);
}

void WebPages::retry() {
  failed_.clear();
}

void WebPages::keepOnly(const std::set<std::string>& monitors) {
  std::erase_if(pages_, [&](auto& entry) {
    if (monitors.contains(entry.first)) {
      return false;
    }
    entry.second->watch.reset();
    return true;
  });
  std::erase_if(failed_, [&](const auto& entry) { return !monitors.contains(entry.first); });
}

}  // namespace korvalen::wallpaper
