// The command line of `fodr agent`: its options, and what they make of the agent.
#pragma once

#include "agent/Agent.h"
#include "cli/Commands.h"

#include <string>

namespace CLI {
class App;
}

namespace fodr::cli {

// Has `app` put what it parses into `words`.
void AddAgentOptions(CLI::App *app, AgentCommandWords *words);

// All of the options but token and mount point. False, with a sentence in `*problem`, for words that can't
// all be followed.
[[nodiscard]] bool AgentOptionsFrom(const AgentCommandWords &words, agent::AgentOptions *filled,
                                    std::string *problem);

} // namespace fodr::cli
