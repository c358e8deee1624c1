// The answer to one readdir or readdirplus, as it is filled.
#pragma once

#include "agent/fuse/Fuse.h"
#include "agent/fuse/FuseCall.h"

#include <string>
#include <vector>

namespace fodr::agent {

class ReaddirBuffer {
public:
    ReaddirBuffer(size_t size, bool plusForm) : bytes(size), plus(plusForm) {}

    // Adds a name; without a node the kernel takes the name and its kind alone. `next` is the position behind
    // it. False when there is no room.
    bool Add(const std::string &name, const EntryAnswer &entry, uint64_t next)
    {
        const auto position = static_cast<off_t>(next);
        // The library doesn't look at the request.
        if (!plus)
            return Took(fuse_add_direntry(nullptr, At(), Room(), name.c_str(), &entry.attributes, position));
        fuse_entry_param param = {};
        param.ino = entry.node;
        param.attr = entry.attributes;
        param.attr_timeout = entry.attributeSeconds;
        param.entry_timeout = entry.nameSeconds;
        return Took(fuse_add_direntry_plus(nullptr, At(), Room(), name.c_str(), &param, position));
    }
    ByteSpan Filled() const { return {reinterpret_cast<const uint8_t *>(bytes.data()), used}; }
    bool IsPlus() const { return plus; }

private:
    char *At() { return bytes.data() + used; }
    size_t Room() const { return bytes.size() - used; }
    bool Took(size_t size)
    {
        if (size > Room())
            return false;
        used += size;
        return true;
    }

    std::vector<char> bytes;
    size_t used = 0;
    const bool plus;
};

} // namespace fodr::agent
