#include "core/library/schedule_editing.hpp"

#include "core/support/text.hpp"

#include <algorithm>

namespace korvalen::ScheduleEditing {
namespace {

// ASCII digits only: no sign, no spaces.
std::optional<std::int64_t> digits(std::string_view text) {
  if (text.empty()) {
    return std::nullopt;
  }
  std::int64_t value = 0;
  for (const char c : text) {
    if (c < '0' || c > '9') {
      return std::nullopt;
    }
    value = value * 10 + (c - '0');
  }
  return value;
}

}  // namespace

std::optional<TimeOfDay> parseTime(std::string_view input) {
  const auto trimmed = text::trimWhitespaceAndNewlines(input);
  const std::string_view bytes = trimmed;
  if (bytes.empty()) {
    return std::nullopt;
  }
  std::string_view hourText;
  std::string_view minuteText;
  const auto separator = bytes.find_first_of(".:");
  if (separator != std::string_view::npos) {
    if ((separator != 1 && separator != 2) || bytes.size() != separator + 3) {
      return std::nullopt;
    }
    hourText = bytes.substr(0, separator);
    minuteText = bytes.substr(separator + 1);
  } else if (bytes.size() == 4) {
    hourText = bytes.substr(0, 2);
    minuteText = bytes.substr(2);
  } else if (bytes.size() <= 2) {
    hourText = bytes;
    minuteText = "0";
  } else {
    return std::nullopt;
  }
  const auto hour = digits(hourText);
  const auto minute = digits(minuteText);
  if (!hour || !minute || *hour > 23 || *minute > 59) {
    return std::nullopt;
  }
  return TimeOfDay{*hour, *minute};
}

Built build(const std::vector<Row>& rows) {
  std::vector<ScheduleEntry> entries;
  for (const auto& row : rows) {
    const auto time = parseTime(row.time);
    if (!time) {
      return {std::nullopt,
              "'" + text::trimWhitespaceAndNewlines(row.time) + "' is not a time \u2014 use HH:mm, e.g. 07:30"};
    }
    if (!row.itemID || row.itemID->empty()) {
      return {std::nullopt, time->text() + " entry has no wallpaper chosen"};
    }
    const bool taken =
        std::any_of(entries.begin(), entries.end(), [&](const ScheduleEntry& entry) { return entry.from == *time; });
    if (taken) {
      return {std::nullopt, "two entries start at " + time->text()};
    }
    entries.push_back(ScheduleEntry{*time, *row.itemID});
  }
  std::stable_sort(entries.begin(), entries.end(),
                   [](const ScheduleEntry& a, const ScheduleEntry& b) { return a.from < b.from; });
  return {std::move(entries), std::nullopt};
}

}  // namespace korvalen::ScheduleEditing
