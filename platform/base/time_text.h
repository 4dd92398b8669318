#pragma once
// Points in time and time spans as text. Any thread.

#include <ctime>
#include <string>

namespace platform {

// "2026-11-22T20:04:23Z": fixed width, sorts by time as text. 0 is "1970-01-01T00:00:00Z".
std::string POSIX_Time_To_ISO8601(std::time_t time);

// The same moment in the machine's time zone with its offset: "2026-11-22T21:04:23+01:00".
std::string POSIX_Time_To_ISO8601_Local(std::time_t time);

// Reads both forms back ("Z" or an offset is required; a fraction of a second is dropped). False, with `time`
// untouched, when `text` is no such text or names a moment that does not exist (2026-02-30).
bool ISO8601_To_POSIX_Time(const std::string& text, std::time_t& time);

// A time span: a number with an optional unit s, m, h, d or w ("90", "90s", "15m", "2h"; seconds without
// one), or hours and minutes since midnight ("08:30", "23:59:59", at most "24:00"). False, with `seconds`
// untouched, when `text` is anything else or does not fit.
bool relative_time_to_seconds(const std::string& text, unsigned& seconds);

}  // namespace platform
