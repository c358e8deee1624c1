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

// By the headings of the examples: the pairs of digits before the two blanks of each fenced line, and what
// the trace shows of the packet.
struct WirePage {
    std::map<std::string, Bytes> examples;
    std::map<std::string, std::string> traces;
};

inline const WirePage &TheWirePage()
{
    static const WirePage read = [] {
        std::ifstream page(FODR_SOURCE_DIR "/docs/wire.md");
        WirePage found;
        std::string heading, line;
        const std::string trace = "trace: ";
        bool fenced = false;
        while (std::getline(page, line)) {
            if (line.starts_with("### "))
                heading = line.substr(4);
            else if (line == "```")
                fenced = !fenced;
            else if (fenced && line.starts_with(trace)) {
                std::string &text = found.traces[heading];
                text += (text.empty() ? "" : "\n") + line.substr(trace.size());
            } else if (fenced) {
                std::istringstream bytes(line.substr(0, line.find("  ")));
                for (unsigned byte = 0; bytes >> std::hex >> byte;)
                    found.examples[heading].push_back(static_cast<uint8_t>(byte));
            }
        }
        return found;
    }();
    return read;
}

inline const std::map<std::string, Bytes> &WireExamples()
{
    return TheWirePage().examples;
}

inline const Bytes &WireExample(const std::string &heading)
{
    auto found = WireExamples().find(heading);
    if (found == WireExamples().end())
        throw std::runtime_error("docs/wire.md has no example \"" + heading + "\"");
    return found->second;
}

} // namespace fodr
