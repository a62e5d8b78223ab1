// Turns the rows a user typed into a checked, sorted schedule, or one finished sentence
// saying what is wrong.
#pragma once

#include "core/library/time_of_day.hpp"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace korvalen::ScheduleEditing {

// Lenient: "7", "07", "0730", "7:30", "07.30" and "7.30" are all understood; "730", "7:3",
// "24:00" and "12 30" are not.
std::optional<TimeOfDay> parseTime(std::string_view input);

struct Row {
  std::string time;
  std::optional<std::string> itemID;
};

struct Built {
  std::optional<std::vector<ScheduleEntry>> schedule;
  std::optional<std::string> error;
};

// The first bad row gives the error; otherwise the entries sorted by start (stable).
Built build(const std::vector<Row>& rows);

}  // namespace korvalen::ScheduleEditing
