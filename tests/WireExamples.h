// The examples of docs/wire.md, so that what is documented is what is tested.
#pragma once

#include <cstdint>
#include <fstream>
#include <map>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace fodr {

using Bytes = std::vector<uint8_t>;

// Heading of an example -> its bytes: the pairs of digits before the two blanks of each fenced line.
inline const std::map<std::string, Bytes> &WireExamples()
{
    static const std::map<std::string, Bytes> examples = [] {
        std::ifstream page(FODR_SOURCE_DIR "/docs/wire.md");
        std::map<std::string, Bytes> found;
        std::string heading, line;
        bool fenced = false;
        while (std::getline(page, line)) {
            if (line.starts_with("### "))
                heading = line.substr(4);
            else if (line == "```")
                fenced = !fenced;
            else if (fenced) {
                std::istringstream bytes(line.substr(0, line.find("  ")));
                for (unsigned byte = 0; bytes >> std::hex >> byte;)
                    found[heading].push_back(static_cast<uint8_t>(byte));
            }
        }
        return found;
    }();
    return examples;
}

inline const Bytes &WireExample(const std::string &heading)
{
    auto found = WireExamples().find(heading);
    if (found == WireExamples().end())
        throw std::runtime_error("docs/wire.md has no example \"" + heading + "\"");
    return found->second;
}

} // namespace fodr
