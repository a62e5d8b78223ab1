#include "core/app/tool_updates.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <chrono>
#include <vector>

namespace korvalen {
namespace ToolUpdates {
namespace {

bool isHex(std::string_view text) {
  return std::all_of(text.begin(), text.end(), [](char c) { return std::isxdigit(static_cast<unsigned char>(c)); });
}

// The dot-separated numbers of a version; empty when any part is not a number.
std::vector<std::uint64_t> numbers(std::string_view version) {
  std::vector<std::uint64_t> out;
  while (true) {
    const auto dot = version.find('.');
    const auto part = version.substr(0, dot);
    std::uint64_t value = 0;
    const auto [end, error] = std::from_chars(part.data(), part.data() + part.size(), value);
    if (part.empty() || error != std::errc{} || end != part.data() + part.size()) {
      return {};
    }
    out.push_back(value);
    if (dot == std::string_view::npos) {
      return out;
    }
    version.remove_prefix(dot + 1);
  }
}

}  // namespace

std::optional<std::string> checksumFor(std::string_view sums, std::string_view name) {
  while (!sums.empty()) {
    const auto end = sums.find('\n');
    auto line = sums.substr(0, end);
    sums = end == std::string_view::npos ? std::string_view{} : sums.substr(end + 1);
    if (line.ends_with('\r')) {
      line.remove_suffix(1);
    }
    const auto space = line.find(' ');
    if (space != 64 || !isHex(line.substr(0, 64)) || line.size() < 67) {
      continue;
    }
    // "HASH  NAME" (text mode) or "HASH *NAME" (binary mode).
    const auto mode = line[65];
    if ((mode == ' ' || mode == '*') && line.substr(66) == name) {
      std::string hash(line.substr(0, 64));
      std::transform(hash.begin(), hash.end(), hash.begin(),
                     [](char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); });
      return hash;
    }
  }
  return std::nullopt;
}

bool isVersion(std::string_view text) {
  return !numbers(text).empty();
}

int compareVersions(std::string_view a, std::string_view b) {
  const auto left = numbers(a);
  const auto right = numbers(b);
  for (std::size_t i = 0; i < std::max(left.size(), right.size()); ++i) {
    const auto l = i < left.size() ? left[i] : 0;
    const auto r = i < right.size() ? right[i] : 0;
    if (l != r) {
      return l < r ? -1 : 1;
    }
  }
  return 0;
}

bool checkDue(const std::optional<Date>& lastChecked, Date now) {
  return !lastChecked || *lastChecked > now || now - *lastChecked > std::chrono::hours(24);
}

}  // namespace ToolUpdates

namespace json {
namespace {

constexpr auto toolStateFields = [](auto& coder, auto& state) {
  coder.optional("version", state.version);
  coder.optional("lastChecked", state.lastChecked);
  coder.optional("latestVersion", state.latestVersion);
  coder.optional("releases", state.releases);
};

}  // namespace

KORVALEN_CODING_FROM_FIELDS(ToolUpdates::ToolState, toolStateFields)

}  // namespace json
}  // namespace korvalen
