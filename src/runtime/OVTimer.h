// Time that is measured, and the texts of times, durations and sizes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace fodr {

// Stopwatch that can pause. One thread at a time.
class OVTimer {
public:
    // What Elapsed does after reading.
    static constexpr int32_t kRead = 0;
    static constexpr int32_t kLap = 1;    // counts from now on; a paused timer stays paused
    static constexpr int32_t kResume = 2; // goes on as if the pause hadn't been
    static constexpr int32_t kPause = 3;
    static constexpr int32_t kRestart = 4;       // at zero and running
    static constexpr int32_t kRestartPaused = 5; // at zero and paused

    virtual ~OVTimer() = default;
    virtual void OnRestart() {}
    virtual void OnPause() {}
    virtual void OnResume() {}
    virtual int64_t GetTicks() const = 0;
    virtual int64_t GetFrequency() const = 0; // ticks a second

    // Stores what Elapsed(mode) gives as the start. On a new timer mode kRestart so means: from now on. On
    // one that already runs the start becomes the time it has run; meant.
    void Start(int32_t mode);
    // Ticks since the start, up to the pause of a paused timer.
    int64_t Elapsed(int32_t mode);
    double ElapsedSeconds(int32_t mode = kRead);
    // Rounded to the nearest.
    int64_t ElapsedMS(int32_t mode = kRead);
    bool IsPaused() const { return pausedAt != 0; }

private:
    int64_t start = 0;
    int64_t pausedAt = 0; // 0: running
};

// Time that passes. New, it is at zero and runs.
class OVElapsedTimer : public OVTimer {
public:
    OVElapsedTimer() { Start(kRestart); }
    int64_t GetTicks() const override;
    int64_t GetFrequency() const override;
};

} // namespace fodr

namespace fodr::StringUtils {

// Milliseconds since 1970-01-01 00:00 UTC.
int64_t WallClockMS();

// "2024-02-29 13:05:07.042" in local time, "2024-02-29T12:05:07.042Z" in UTC. The length stored.
int FormatTimeStamp(char *buffer, size_t size, bool utc, int64_t unixMS);
int FormatTimeStamp(char *buffer, size_t size, bool utc); // of now
std::string TimeStamp(bool utc);                          // of now

// "1:02:03.500", "12.5s", "42ms", "1 days 0:00:00". The fraction is cut to `decimals` digits, at most 32;
// without decimals the seconds are rounded.
std::string FormatDuration(double seconds, int decimals);

// "999.0B", "1.0KB". The next unit begins at 1000 and divides by 1024, which keeps the number within three
// digits.
std::string FormatByteSize(double bytes, int precision);

} // namespace fodr::StringUtils
