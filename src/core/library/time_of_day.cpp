#include "core/library/time_of_day.hpp"

#include "core/support/text.hpp"

#include <fmt/format.h>

#include <charconv>
#include <vector>

namespace korvalen {
namespace {

std::vector<std::string_view> splitAtColons(std::string_view text, bool keepEmpty) {
  std::vector<std::string_view> pieces;
  std::size_t start = 0;
  while (start <= text.size()) {
    const auto end = std::min(text.find(':', start), text.size());
    const auto piece = text.substr(start, end - start);
    if (keepEmpty || !piece.empty()) {
      pieces.push_back(piece);
    }
    start = end + 1;
  }
  return pieces;
}

// A whole decimal number with an optional sign, nothing else.
std::optional<std::int64_t> integer(std::string_view text) {
  if (!text.empty() && text.front() == '+') {
    text.remove_prefix(1);
    if (!text.empty() && text.front() == '-') {
      return std::nullopt;
    }
  }
  std::int64_t value = 0;
  const auto* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (text.empty() || error != std::errc{} || stop != end) {
    return std::nullopt;
  }
  return value;
}

std::optional<double> decimal(std::string_view text) {
  if (!text.empty() && text.front() == '+') {
    text.remove_prefix(1);
    if (!text.empty() && text.front() == '-') {
      return std::nullopt;
    }
  }
  double value = 0;
  const auto* end = text.data() + text.size();
  const auto [stop, error] = std::from_chars(text.data(), end, value);
  if (text.empty() || error != std::errc{} || stop != end) {
    return std::nullopt;
  }
  return value;
}

}  // namespace

std::optional<TimeOfDay> TimeOfDay::parse(std::string_view text) {
  const auto pieces = splitAtColons(text, false);
  if (pieces.size() != 2) {
    return std::nullopt;
  }
  const auto hour = integer(pieces[0]);
  const auto minute = integer(pieces[1]);
  if (!hour || !minute || *hour < 0 || *hour > 23 || *minute < 0 || *minute > 59) {
    return std::nullopt;
  }
  return TimeOfDay{*hour, *minute};
}

TimeOfDay TimeOfDay::of(Date date, const TimeZone& zone) {
  const auto local = zone.to_local(date);
  const auto sinceMidnight = local - date::floor<date::days>(local);
  const auto time = date::make_time(std::chrono::floor<std::chrono::seconds>(sinceMidnight));
  return TimeOfDay{time.hours().count(), time.minutes().count()};
}

std::string TimeOfDay::text() const {
  return fmt::format("{:02d}:{:02d}", hour, minute);
}

namespace json {

Result<TimeOfDay> Coding<TimeOfDay>::decode(const Json& json, const Options& options) {
  if (json.is_string()) {
    const auto& original = json.get_ref<const std::string&>();
    const auto trimmed = text::trimSpacesAndTabs(original);
    const auto pieces = splitAtColons(trimmed, true);
    if (pieces.size() == 3) {
      if (const auto seconds = decimal(pieces[2]); seconds && *seconds >= 0 && *seconds < 60) {
        if (auto time = TimeOfDay::parse(std::string(pieces[0]) + ":" + std::string(pieces[1]))) {
          return *time;
        }
      }
    }
    if (auto time = TimeOfDay::parse(trimmed)) {
      return *time;
    }
    return std::unexpected(Error{"", "not a time of day: " + original});
  }
  // The older object form.
  ObjectReader in(json, options);
  TimeOfDay time;
  in.required("hour", time.hour);
  in.required("minute", time.minute);
  if (!in.finish()) {
    return std::unexpected(Error{"", "not a time of day"});
  }
  if (time.hour >= 24 || time.minute >= 60) {
    return std::unexpected(Error{"", "not a time of day"});
  }
  return time;
}

Json Coding<ScheduleEntry>::encode(const ScheduleEntry& entry, const Options& options) {
  return ObjectWriter(options).put("from", entry.from).put("itemID", entry.itemID).take();
}

Result<ScheduleEntry> Coding<ScheduleEntry>::decode(const Json& json, const Options& options) {
  ObjectReader in(json, options);
  ScheduleEntry entry;
  in.required("from", entry.from);
  in.required("itemID", entry.itemID);
  return in.finishWith(std::move(entry));
}

}  // namespace json
}  // namespace korvalen
