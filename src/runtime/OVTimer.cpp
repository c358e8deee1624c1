#include "runtime/OVTimer.h"

#include <chrono>
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
