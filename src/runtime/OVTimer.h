// Stopwatch that can pause. One thread at a time.
#pragma once

#include <cstdint>

namespace fodr {

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
    // one that already runs the start becomes the time it has run, which is meant.
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
