#include "core/library/link_download.hpp"

#include "core/support/json.hpp"
#include "core/support/numbers.hpp"
#include "core/support/text.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace korvalen::LinkDownload {
namespace {

// A link cut where credentials can hide: "scheme://", user information (before the last '@'
// of the authority), the rest of the authority and path, the query, the fragment.
struct LinkParts {
  std::string_view scheme;  // with "://"
  std::string_view userInfo;
  std::string_view hostAndPath;
  std::string_view query;     // without '?'
  std::string_view fragment;  // with '#'
  bool hasQuery = false;
};

LinkParts split(std::string_view link) {
  LinkParts parts;
  if (const auto at = link.find("://"); at != std::string_view::npos) {
    parts.scheme = link.substr(0, at + 3);
    link.remove_prefix(at + 3);
  }
  if (const auto hash = link.find('#'); hash != std::string_view::npos) {
    parts.fragment = link.substr(hash);
    link = link.substr(0, hash);
  }
  if (const auto question = link.find('?'); question != std::string_view::npos) {
    parts.query = link.substr(question + 1);
    parts.hasQuery = true;
    link = link.substr(0, question);
  }
  const auto authorityEnd = link.find('/');
  const auto authority = link.substr(0, authorityEnd);
  if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
    parts.userInfo = authority.substr(0, at);
    link.remove_prefix(at + 1);
  }
  parts.hostAndPath = link;
  return parts;
}

// The parameter names the log redaction hides, matched as it matches them: at the end of the
// name, in any case.
bool secretName(std::string_view name) {
  static constexpr std::array<std::string_view, 8> secret{"apikey", "api_key", "api-key",      "key",
                                                          "token",  "secret",  "access_token", "access-token"};
  const auto lower = text::lowercased(name);
  return std::any_of(secret.begin(), secret.end(), [&](std::string_view s) { return lower.ends_with(s); });
}

std::vector<std::string_view> queryParameters(std::string_view query) {
  std::vector<std::string_view> out;
  while (!query.empty()) {
    const auto amp = query.find('&');
    out.push_back(query.substr(0, amp));
    if (amp == std::string_view::npos) {
      break;
    }
    query.remove_prefix(amp + 1);
  }
  return out;
}

std::string percentDecoded(std::string_view text) {
  std::string out;
  for (std::size_t i = 0; i < text.size(); ++i) {
    int value = 0;
    if (text[i] == '%' && i + 2 < text.size() &&
        std::from_chars(text.data() + i + 1, text.data() + i + 3, value, 16).ptr == text.data() + i + 3) {
      out += static_cast<char>(value);
      i += 2;
    } else {
      out += text[i];
    }
  }
  return out;
}

std::optional<std::string> stringAt(const json::Json& object, std::initializer_list<const char*> keys) {
  for (const auto* key : keys) {
    const auto found = object.find(key);
    if (found != object.end() && found->is_string() && !found->get<std::string>().empty()) {
      return found->get<std::string>();
    }
  }
  return std::nullopt;
}

std::string bytes(double count) {
  return numbers::readableBytes(std::llround(count));
}

}  // namespace

bool isLink(std::string_view text) {
  const auto lower = text::lowercased(text.substr(0, 8));
  return lower.starts_with("http://") || lower.starts_with("https://");
}

std::string withoutCredentials(std::string_view link) {
  const auto parts = split(link);
  std::string out(parts.scheme);
  out += parts.hostAndPath;
  std::vector<std::string_view> kept;
  for (const auto parameter : queryParameters(parts.query)) {
    if (!secretName(percentDecoded(parameter.substr(0, parameter.find('='))))) {
      kept.push_back(parameter);
    }
  }
  if (!kept.empty()) {
    out += '?';
    out += fmt::format("{}", fmt::join(kept, "&"));
  }
  out += parts.fragment;
  return out;
}

std::string scrubbed(std::string_view text, std::string_view link) {
  std::string out(text);
  const auto clean = withoutCredentials(link);
  if (!link.empty() && clean != link) {
    out = text::replacingAll(out, link, clean);
  }
  // Whatever the tool made of the link (decoded, reordered), no credential survives.
  const auto parts = split(link);
  std::vector<std::string> secrets;
  if (!parts.userInfo.empty()) {
    const auto colon = parts.userInfo.find(':');
    secrets.emplace_back(parts.userInfo.substr(0, colon));
    if (colon != std::string_view::npos) {
      secrets.emplace_back(parts.userInfo.substr(colon + 1));
    }
  }
  for (const auto parameter : queryParameters(parts.query)) {
    const auto equals = parameter.find('=');
    if (equals != std::string_view::npos && secretName(percentDecoded(parameter.substr(0, equals)))) {
      secrets.emplace_back(parameter.substr(equals + 1));
    }
  }
  for (const auto& secret : secrets) {
    for (const auto& form : {secret, percentDecoded(secret)}) {
      // Shorter ones would garble every word they appear in; the link itself is gone anyway.
      if (form.size() >= 4) {
        out = text::replacingAll(out, form, "<redacted>");
      }
    }
  }
  return out;
}

std::string failureFrom(std::string_view errors, std::string_view link) {
  // Its last "ERROR:" line; else (a crash) the last line it wrote.
  std::string_view last;
  std::string_view lastLine;
  for (auto rest = errors; !rest.empty();) {
    const auto end = rest.find('\n');
    const auto line = rest.substr(0, end);
    if (line.starts_with("ERROR: ")) {
      last = line.substr(7);
    }
    if (!text::trimWhitespaceAndNewlines(line).empty()) {
      lastLine = line;
    }
    rest = end == std::string_view::npos ? std::string_view{} : rest.substr(end + 1);
  }
  if (last.empty()) {
    last = lastLine;
  }
  // "[extractor] id: what happened (caused by ...); please report this issue ..."
  if (last.starts_with('[')) {
    if (const auto close = last.find("] "); close != std::string_view::npos) {
      last.remove_prefix(close + 2);
      const auto colon = last.find(": ");
      const auto space = last.find(' ');
      if (colon != std::string_view::npos && colon < space) {
        last.remove_prefix(colon + 2);
      }
    }
  }
  for (const auto* tail : {"; please report this issue", " (caused by ", "; please report"}) {
    last = last.substr(0, last.find(tail));
  }
  return scrubbed(text::trimWhitespaceAndNewlines(last), link);
}

std::expected<Probe, std::string> readProbe(std::string_view jsonText, std::string_view link) {
  const auto parsed = json::Json::parse(jsonText, nullptr, false);
  if (parsed.is_discarded() || !parsed.is_object()) {
    return std::unexpected("the downloader's description of the link is not JSON");
  }
  if (stringAt(parsed, {"_type"}) == "playlist") {
    return std::unexpected("the link is a playlist or a channel; give the link of one video");
  }
  Probe probe;
  auto& m = probe.metadata;
  const auto shown = withoutCredentials(link);
  m.title = stringAt(parsed, {"title", "fulltitle", "id"}).value_or(shown);
  m.author = stringAt(parsed, {"uploader", "creator", "channel", "artist"});
  if (auto page = stringAt(parsed, {"uploader_url", "channel_url"})) {
    m.authorURL = withoutCredentials(*page);
  }
  m.sourceURL = withoutCredentials(stringAt(parsed, {"webpage_url", "original_url"}).value_or(std::string(link)));
  m.licence = stringAt(parsed, {"license"});
  const auto extractor = stringAt(parsed, {"extractor_key", "extractor"}).value_or("generic");
  if (text::lowercased(extractor) == "generic") {
    // A page or file the downloader knows no site for: the site is its host.
    const auto host = split(*m.sourceURL).hostAndPath;
    m.provider = std::string(host.substr(0, host.find('/')));
  } else {
    m.provider = text::lowercased(extractor);
  }
  if (const auto duration = parsed.find("duration"); duration != parsed.end() && duration->is_number()) {
    m.durationSeconds = duration->get<double>();
  }
  const auto addHeight = [&](const json::Json& format) {
    const auto height = format.find("height");
    const bool video = stringAt(format, {"vcodec"}) != "none";
    if (video && height != format.end() && height->is_number_integer() && height->get<std::int64_t>() > 0) {
      probe.heights.push_back(height->get<std::int64_t>());
    }
  };
  if (const auto formats = parsed.find("formats"); formats != parsed.end() && formats->is_array()) {
    for (const auto& format : *formats) {
      if (format.is_object()) {
        addHeight(format);
      }
    }
  } else {
    addHeight(parsed);
  }
  std::sort(probe.heights.begin(), probe.heights.end());
  probe.heights.erase(std::unique(probe.heights.begin(), probe.heights.end()), probe.heights.end());
  return probe;
}

HeightChoice chooseHeight(const std::vector<std::int64_t>& offered, std::int64_t preferred) {
  if (offered.empty()) {
    return {0, preferred <= 0};
  }
  if (preferred <= 0) {
    return {offered.back(), true};
  }
  if (std::find(offered.begin(), offered.end(), preferred) != offered.end()) {
    return {preferred, true};
  }
  const auto above = std::upper_bound(offered.begin(), offered.end(), preferred);
  return {above == offered.begin() ? *above : *std::prev(above), false};
}

std::string formatSelector(std::int64_t height, bool includeAudio) {
  if (height <= 0) {
    return includeAudio ? "bv*+ba/b" : "bv/b";
  }
  // The height asked for, else the best below it, else anything: a link whose single file
  // has no height still downloads.
  return includeAudio ? fmt::format("bv*[height={0}]+ba/b[height={0}]/bv*[height<={0}]+ba/b[height<={0}]/b", height)
                      : fmt::format("bv[height={0}]/b[height={0}]/bv[height<={0}]/b[height<={0}]/bv/b", height);
}

const std::vector<BrowserProfile>& browserProfiles() {
  static const std::vector<BrowserProfile> profiles{
      {"firefox", ".mozilla/firefox"},    {"chrome", ".config/google-chrome"},
      {"chromium", ".config/chromium"},   {"brave", ".config/BraveSoftware/Brave-Browser"},
      {"edge", ".config/microsoft-edge"}, {"vivaldi", ".config/vivaldi"},
      {"opera", ".config/opera"},
  };
  return profiles;
}

std::string_view progressTemplate() {
  return "download:korvalen-progress %(progress.downloaded_bytes)s %(progress.total_bytes)s "
         "%(progress.total_bytes_estimate)s %(progress.speed)s %(progress.eta)s";
}

std::optional<Progress> readProgress(std::string_view line) {
  static constexpr std::string_view tag = "korvalen-progress ";
  const auto at = line.find(tag);
  if (at == std::string_view::npos) {
    return std::nullopt;
  }
  line.remove_prefix(at + tag.size());
  std::array<std::optional<double>, 5> values;
  for (auto& value : values) {
    const auto end = line.find(' ');
    const auto number = numbers::decimal(text::trimWhitespaceAndNewlines(line.substr(0, end)));
    if (number && std::isfinite(*number) && *number >= 0) {
      value = number;
    }
    line = end == std::string_view::npos ? std::string_view{} : line.substr(end + 1);
  }
  return Progress{values[0], values[1] ? values[1] : values[2], values[3], values[4]};
}

std::string describe(const Progress& progress) {
  std::string out;
  if (progress.downloadedBytes && progress.totalBytes && *progress.totalBytes > 0) {
    out = fmt::format("{:.0f}% of {}", std::min(100.0, *progress.downloadedBytes * 100 / *progress.totalBytes),
                      bytes(*progress.totalBytes));
  } else if (progress.downloadedBytes) {
    out = bytes(*progress.downloadedBytes);
  }
  if (progress.bytesPerSecond) {
    out += fmt::format("{}{}/s", out.empty() ? "" : " at ", bytes(*progress.bytesPerSecond));
  }
  if (progress.secondsLeft) {
    const auto left = static_cast<std::int64_t>(*progress.secondsLeft);
    out +=
        fmt::format("{}{}", out.empty() ? "" : ", ",
                    left >= 60 ? fmt::format("{}:{:02} left", left / 60, left % 60) : fmt::format("{} s left", left));
  }
  return out;
}

}  // namespace korvalen::LinkDownload
