// A handle's place in the ChangeMonitor, which runs as long as one of these exists.
#pragma once

#include "ntposix/ChangeMonitor.h"
#include "ntposix/ChangeWatch.h"

#include <memory>
#include <utility>

namespace fodr::ntposix {

class ChangeSubscription {
public:
    ChangeSubscription(std::shared_ptr<ChangeMonitor> usedMonitor, std::shared_ptr<ChangeWatch> addedWatch)
        : monitor(std::move(usedMonitor)), watch(std::move(addedWatch))
    {}
    ~ChangeSubscription() { monitor->Remove(watch.get()); }
    ChangeSubscription(const ChangeSubscription &) = delete;
    ChangeSubscription &operator=(const ChangeSubscription &) = delete;

    const std::shared_ptr<ChangeMonitor> monitor;
    const std::shared_ptr<ChangeWatch> watch;
};

} // namespace fodr::ntposix
