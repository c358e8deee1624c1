// How a file that was opened over an earlier connection is found again.
#pragma once

#include "agent/FileFacts.h"

#include <cstdint>
#include <string>

namespace fodr::agent {

// Given by who opened the file. Called on any thread, without a lock of the agent's.
class IReopen {
public:
    virtual ~IReopen() = default;
    // The path within the share by now. False: the file has none any more.
    virtual bool Place(std::u16string *path) = 0;
    // The file's id (FileInternalInformation); 0: it isn't known.
    virtual uint64_t ExpectedId() = 0;
    // Asked where ids can't be compared: whether a file of these facts may be the one that was open.
    virtual bool MayBe(const FileFacts &facts) = 0;
};

} // namespace fodr::agent
