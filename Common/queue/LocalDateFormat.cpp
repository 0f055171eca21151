#include "Common/queue/LocalDateFormat.hpp"

#include <cmath>
#include <cstdlib>
#include <ctime>

#include <fmt/format.h>

#include "Common/util/JsonCoding.hpp"

namespace tern {

std::string formatLocalTimestamp(vontu::platform::Date date) {
    double seconds = std::floor(date.secondsSince1970);
    // Beyond ±10^15 seconds the calendar has nothing sensible to show.
    if (!std::isfinite(seconds) || std::fabs(seconds) > 1e15) return describeDate(date);
    std::time_t time = static_cast<std::time_t>(seconds);
    std::tm local{};
    // localtime_r reads the zone setting only once per process; the device's zone may have
    // changed since, and this runs seldom enough to look again.
    tzset();
    if (localtime_r(&time, &local) == nullptr) return describeDate(date);

    long offsetMinutes = local.tm_gmtoff / 60;
    char sign = offsetMinutes < 0 ? '-' : '+';
    offsetMinutes = std::labs(offsetMinutes);
    return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}{}{:02}{:02}", local.tm_year + 1900,
                       local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min,
                       local.tm_sec, sign, offsetMinutes / 60, offsetMinutes % 60);
}

}  // namespace tern
