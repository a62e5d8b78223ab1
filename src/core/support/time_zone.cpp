#include "core/support/time_zone.hpp"

#include <stdexcept>
#include <string>

namespace korvalen {

const TimeZone* findTimeZone(std::string_view name) {
  if (name.empty()) {
    return nullptr;
  }
  try {
    return date::locate_zone(name);
  } catch (const std::runtime_error&) {
    return nullptr;
  }
}

const TimeZone& localTimeZone(std::string_view tzVariable) {
  // POSIX lets TZ start with a colon before a zone name.
  if (!tzVariable.empty() && tzVariable.front() == ':') {
    tzVariable.remove_prefix(1);
  }
  if (const auto* zone = findTimeZone(tzVariable)) {
    return *zone;
  }
  try {
    return *date::current_zone();
  } catch (const std::runtime_error&) {
    return *date::locate_zone("UTC");
  }
}

}  // namespace korvalen
