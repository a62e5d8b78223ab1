// Times of day and typed schedules: a time that parses prints as "HH:MM" within the day and
// parses back to itself, in both the strict and the lenient reader; a schedule that builds
// is sorted by start.
#include "core/library/schedule_editing.hpp"
#include "core/library/time_of_day.hpp"
#include "fuzz.hpp"

#include <algorithm>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace korvalen;
  const auto input = fuzz::text(data, size);
  for (const auto& time : {TimeOfDay::parse(input), ScheduleEditing::parseTime(input)}) {
    if (time) {
      KORVALEN_FUZZ_CHECK(time->hour >= 0 && time->hour <= 23 && time->minute >= 0 && time->minute <= 59);
      KORVALEN_FUZZ_CHECK(TimeOfDay::parse(time->text()) == time);
      KORVALEN_FUZZ_CHECK(ScheduleEditing::parseTime(time->text()) == time);
    }
  }
  if (const auto parsed = json::parse(input)) {
    if (const auto time = json::decode<TimeOfDay>(*parsed)) {
      KORVALEN_FUZZ_CHECK(json::decode<TimeOfDay>(json::encode(*time)) == *time);
    }
  }
  // Rows: lines of "time item".
  std::vector<ScheduleEditing::Row> rows;
  std::size_t start = 0;
  while (start <= input.size() && rows.size() < 64) {
    const auto end = std::min(input.find('\n', start), input.size());
    const auto line = input.substr(start, end - start);
    const auto space = line.find(' ');
    rows.push_back({std::string(line.substr(0, space)), space == std::string_view::npos
                                                            ? std::nullopt
                                                            : std::optional<std::string>(line.substr(space + 1))});
    start = end + 1;
  }
  const auto built = ScheduleEditing::build(rows);
  KORVALEN_FUZZ_CHECK(built.schedule.has_value() != built.error.has_value());
  if (built.schedule) {
    KORVALEN_FUZZ_CHECK(std::is_sorted(built.schedule->begin(), built.schedule->end(),
                                       [](const auto& a, const auto& b) { return a.from < b.from; }));
  }
  return 0;
}
