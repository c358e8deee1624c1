#include "runtime/OVTimer.h"

#include "platform/Threads.h"
#include "runtime/StringUtils.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <ratio>

namespace fodr {

void OVTimer::Start(int32_t mode)
{
    start = Elapsed(mode);
}

int64_t OVTimer::Elapsed(int32_t mode)
{
    const int64_t now = GetTicks();
    const int64_t elapsed = (pausedAt ? pausedAt : now) - start;
    switch (mode) {
    case kLap:
        if (pausedAt)
            pausedAt = now;
        start = now;
        OnRestart();
        break;
    case kResume:
        if (pausedAt) {
            start += now - pausedAt;
            pausedAt = 0;
            OnResume();
        }
        break;
    case kPause:
        if (!pausedAt) {
            pausedAt = now;
            OnPause();
        }
        break;
    case kRestart:
    case kRestartPaused:
        start = now;
        pausedAt = mode == kRestart ? 0 : now;
        OnRestart();
        break;
    default:
        break;
    }
    return elapsed;
}

double OVTimer::ElapsedSeconds(int32_t mode)
{
    return static_cast<double>(Elapsed(mode)) / static_cast<double>(GetFrequency());
}

int64_t OVTimer::ElapsedMS(int32_t mode)
{
    const int64_t frequency = GetFrequency();
    return (frequency / 2 + Elapsed(mode) * 1000) / frequency;
}

namespace {

// Coarse enough that a thousand times the ticks of a year's run fit 64 bits.
using Ticks = std::chrono::duration<int64_t, std::ratio<1, 10'000'000>>;

} // namespace

int64_t OVElapsedTimer::GetTicks() const
{
    return std::chrono::duration_cast<Ticks>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int64_t OVElapsedTimer::GetFrequency() const
{
    return Ticks::period::den;
}

} // namespace fodr

namespace fodr::StringUtils {

namespace {

constexpr int kMostDecimals = 32;
constexpr double kLongestSeconds = 1e14; // days still fit an int

struct Duration {
    int64_t wholeSeconds;
    int64_t fraction; // in units of the last decimal
    int decimals;     // 0: none
};

Duration Split(double seconds, int decimals)
{
    seconds = std::isfinite(seconds) ? std::clamp(seconds, -kLongestSeconds, kLongestSeconds) : 0.0;
    if (decimals < 1)
        return {static_cast<int64_t>(seconds + 0.5), 0, 0};
    decimals = std::min(decimals, kMostDecimals);
    const int64_t whole = static_cast<int64_t>(seconds);
    double scale = 1;
    for (int i = 0; i < decimals; ++i)
        scale *= 10;
    const double fraction = scale * (seconds - static_cast<double>(whole));
    // More digits than 64 bits hold are cut off at what they hold.
    constexpr double kMost = 9.2e18;
    return {whole, static_cast<int64_t>(std::clamp(fraction, -kMost, kMost)), decimals};
}

int FormatSeconds(char *buffer, size_t size, int seconds, const Duration &duration)
{
    const long long fraction = duration.fraction;
    if (duration.decimals == 0)
        return FormatBuffer(buffer, size, "%ds", seconds);
    if (seconds < 1 && duration.decimals == 3)
        return FormatBuffer(buffer, size, "%lldms", fraction);
    if (seconds < 1 && duration.decimals == 6)
        return FormatBuffer(buffer, size, "%lldus", fraction);
    if (seconds < 1 && duration.decimals == 9)
        return FormatBuffer(buffer, size, "%lldns", fraction);
    return FormatBuffer(buffer, size, "%d.%0*llds", seconds, duration.decimals, fraction);
}

} // namespace

int64_t WallClockMS()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

int FormatTimeStamp(char *buffer, size_t size, bool utc, int64_t unixMS)
{
    const int64_t milliseconds = (unixMS % 1000 + 1000) % 1000;
    const std::tm time = platform::BreakDownTime((unixMS - milliseconds) / 1000, utc);
    return FormatBuffer(buffer, size, "%04d-%02d-%02d%c%02d:%02d:%02d.%03d%s", time.tm_year + 1900,
                        time.tm_mon + 1, time.tm_mday, utc ? 'T' : ' ', time.tm_hour, time.tm_min,
                        time.tm_sec, static_cast<int>(milliseconds), utc ? "Z" : "");
}

int FormatTimeStamp(char *buffer, size_t size, bool utc)
{
    return FormatTimeStamp(buffer, size, utc, WallClockMS());
}

std::string TimeStamp(bool utc)
{
    char buffer[64];
    FormatTimeStamp(buffer, sizeof(buffer), utc);
    return buffer;
}

std::string FormatDuration(double seconds, int decimals)
{
    const Duration duration = Split(seconds, decimals);
    const int days = static_cast<int>(duration.wholeSeconds / 86400);
    const int hours = static_cast<int>(duration.wholeSeconds / 3600 % 24);
    const int minutes = static_cast<int>(duration.wholeSeconds / 60 % 60);
    const int wholeSeconds = static_cast<int>(duration.wholeSeconds % 60);

    char buffer[128];
    int length = 0;
    if (days > 0) {
        length = FormatBuffer(buffer, sizeof(buffer), "%d days ", days);
    } else if (hours == 0 && minutes == 0) {
        FormatSeconds(buffer, sizeof(buffer), wholeSeconds, duration);
        return buffer;
    }
    char *rest = buffer + length;
    const size_t room = sizeof(buffer) - static_cast<size_t>(length);
    if (duration.decimals == 0)
        FormatBuffer(rest, room, "%d:%02d:%02d", hours, minutes, wholeSeconds);
    else
        FormatBuffer(rest, room, "%d:%02d:%02d.%0*lld", hours, minutes, wholeSeconds, duration.decimals,
                     static_cast<long long>(duration.fraction));
    return buffer;
}

std::string FormatByteSize(double bytes, int precision)
{
    static constexpr const char *kUnits[] = {"", "K", "M", "G", "T", "P"};
    size_t unit = 0;
    while (bytes >= 1000.0 && unit < 5) {
        bytes *= 0.0009765625;
        ++unit;
    }
    char buffer[128];
    FormatBuffer(buffer, sizeof(buffer), "%*.*f%sB", precision + 2, precision, bytes, kUnits[unit]);
    return buffer;
}

} // namespace fodr::StringUtils
