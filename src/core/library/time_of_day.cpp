#include "core/library/time_of_day.hpp"

#include "core/support/numbers.hpp"
#include "core/support/text.hpp"

#include <fmt/format.h>

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

}  // namespace

std::optional<TimeOfDay> TimeOfDay::parse(std::string_view text) {
  const auto pieces = splitAtColons(text, false);
  if (pieces.size() != 2) {
    return std::nullopt;
  }
  const auto hour = numbers::wholeNumber(pieces[0]);
  const auto minute = numbers::wholeNumber(pieces[1]);
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
      if (const auto seconds = numbers::decimal(pieces[2]); seconds && *seconds >= 0 && *seconds < 60) {
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
  // Negative values too: written back as "-2:00", they could never be read again.
  if (time.hour < 0 || time.hour >= 24 || time.minute < 0 || time.minute >= 60) {
    return std::unexpected(Error{"", "not a time of day"});
  }
  return time;
}

namespace {
constexpr auto scheduleEntryFields = [](auto& coder, auto& entry) {
  coder.required("from", entry.from);
  coder.required("itemID", entry.itemID);
};
}  // namespace

KORVALEN_CODING_FROM_FIELDS(ScheduleEntry, scheduleEntryFields)

}  // namespace json
}  // namespace korvalen
