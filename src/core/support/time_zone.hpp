// Time zones come from the system's tzdata through Howard Hinnant's date library. The core
// takes a zone as an argument; only the shells decide which one (a flag, the user's zone).
#pragma once

#include <date/tz.h>

#include <string_view>

namespace korvalen {

using TimeZone = date::time_zone;

// The zone with this IANA name ("Europe/Berlin"), or null when tzdata has no such zone.
const TimeZone* findTimeZone(std::string_view name);

// The zone named by "TZ" when it names one, else the machine's zone, else UTC.
const TimeZone& localTimeZone(std::string_view tzVariable);

}  // namespace korvalen
