#include "core/rendering/web_sandbox.hpp"

#include "core/support/text.hpp"

#include <fmt/format.h>

#include <array>
#include <optional>
#include <utility>
#include <vector>

namespace korvalen::WebSandbox {

using text::lowercased;

namespace {

constexpr std::string_view separator = "://";

bool unreserved(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' || c == '.' ||
         c == '_' || c == '~';
}

int hexValue(char c) {
  if (c >= '0' && c <= '9') {
    return c - '0';
  }
  if (c >= 'a' && c <= 'f') {
    return c - 'a' + 10;
  }
  if (c >= 'A' && c <= 'F') {
    return c - 'A' + 10;
  }
  return -1;
}

// One step of a path, percent-decoded; absent when an escape is broken.
std::optional<std::string> decoded(std::string_view step) {
  std::string out;
  out.reserve(step.size());
  for (std::size_t i = 0; i < step.size(); ++i) {
    if (step[i] != '%') {
      out.push_back(step[i]);
      continue;
    }
    if (i + 2 >= step.size()) {
      return std::nullopt;
    }
    const int high = hexValue(step[i + 1]);
    const int low = hexValue(step[i + 2]);
    if (high < 0 || low < 0) {
      return std::nullopt;
    }
    out.push_back(static_cast<char>(high * 16 + low));
    i += 2;
  }
  return out;
}

struct Parts {
  std::string scheme;
  std::string host;
  std::string_view path;  // from its "/", without query or fragment
};

std::optional<Parts> split(std::string_view address) {
  const auto colon = address.find(separator);
  if (colon == std::string_view::npos || colon == 0) {
    return std::nullopt;
  }
  Parts parts{lowercased(address.substr(0, colon)), "", {}};
  auto rest = address.substr(colon + separator.size());
  rest = rest.substr(0, rest.find_first_of("?#"));
  const auto slash = rest.find('/');
  parts.host = lowercased(rest.substr(0, slash));
  parts.path = slash == std::string_view::npos ? std::string_view("/") : rest.substr(slash);
  return parts;
}

}  // namespace

std::string originOf(std::string_view item) {
  return fmt::format("{}://{}", scheme, lowercased(item));
}

std::string pageAddress(std::string_view item, std::string_view page) {
  std::string out = originOf(item);
  std::size_t start = 0;
  while (start <= page.size()) {
    const auto end = std::min(page.find('/', start), page.size());
    out.push_back('/');
    for (const char c : page.substr(start, end - start)) {
      if (unreserved(c)) {
        out.push_back(c);
      } else {
        out += fmt::format("%{:02X}", static_cast<unsigned char>(c));
      }
    }
    start = end + 1;
  }
  return out;
}

std::expected<std::string, std::string> fileFor(std::string_view address, std::string_view item) {
  const auto parts = split(address);
  if (!parts || parts->scheme != scheme) {
    return std::unexpected(fmt::format("not a {} address", scheme));
  }
  if (parts->host != lowercased(item)) {
    return std::unexpected("another item's files are not this page's");
  }
  std::vector<std::string> steps;
  std::size_t start = 1;
  const auto path = parts->path;
  while (start <= path.size()) {
    const auto end = std::min(path.find('/', start), path.size());
    const auto step = decoded(path.substr(start, end - start));
    if (!step) {
      return std::unexpected("a broken %-escape");
    }
    if (step->find('/') != std::string::npos || step->find('\\') != std::string::npos ||
        step->find('\0') != std::string::npos) {
      return std::unexpected("an encoded slash or NUL");
    }
    if (*step == "..") {
      return std::unexpected("a step out of the folder");
    }
    if (!step->empty() && *step != ".") {
      steps.push_back(*step);
    } else if (end == path.size()) {
      steps.emplace_back("index.html");  // a folder's own page
    }
    start = end + 1;
  }
  if (steps.empty()) {
    steps.emplace_back("index.html");
  }
  std::string out;
  for (const auto& step : steps) {
    if (!out.empty()) {
      out.push_back('/');
    }
    out += step;
  }
  return out;
}

bool allows(std::string_view address, std::string_view item, bool allowNetwork) {
  // about:blank, data: and blob: stay inside the page.
  const auto lower = lowercased(address.substr(0, 6));
  if (lower.starts_with("about:") || lower.starts_with("data:") || lower.starts_with("blob:")) {
    return true;
  }
  const auto parts = split(address);
  if (!parts) {
    return false;  // nothing else goes without "://"
  }
  if (parts->scheme == scheme) {
    return parts->host == lowercased(item);
  }
  if (parts->scheme == "file") {
    return false;  // never the disk, network or not
  }
  return allowNetwork;
}

std::string contentSecurityPolicy(std::string_view item) {
  const auto own = originOf(item);
  return fmt::format("default-src {0} 'unsafe-inline' 'unsafe-eval' data: blob:; form-action {0}; base-uri {0}", own);
}

std::string_view mediaTypeOf(std::string_view file) {
  static constexpr std::array<std::pair<std::string_view, std::string_view>, 24> types{{
      {"html", "text/html"},      {"htm", "text/html"},         {"css", "text/css"},          {"js", "text/javascript"},
      {"mjs", "text/javascript"}, {"json", "application/json"}, {"svg", "image/svg+xml"},     {"png", "image/png"},
      {"jpg", "image/jpeg"},      {"jpeg", "image/jpeg"},       {"gif", "image/gif"},         {"webp", "image/webp"},
      {"avif", "image/avif"},     {"ico", "image/x-icon"},      {"mp4", "video/mp4"},         {"webm", "video/webm"},
      {"mp3", "audio/mpeg"},      {"ogg", "audio/ogg"},         {"wav", "audio/wav"},         {"woff", "font/woff"},
      {"woff2", "font/woff2"},    {"ttf", "font/ttf"},          {"wasm", "application/wasm"}, {"txt", "text/plain"},
  }};
  const auto slash = file.find_last_of('/');
  const auto name = slash == std::string_view::npos ? file : file.substr(slash + 1);
  const auto dot = name.find_last_of('.');
  if (dot == std::string_view::npos) {
    return "application/octet-stream";
  }
  const auto extension = lowercased(name.substr(dot + 1));
  for (const auto& [known, type] : types) {
    if (known == extension) {
      return type;
    }
  }
  return "application/octet-stream";
}

}  // namespace korvalen::WebSandbox
