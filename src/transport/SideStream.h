// The connection of a side channel, up to the point where frames flow.
#pragma once

#include "platform/ByteStream.h"
#include "transport/Frames.h"

#include <memory>
#include <string>

namespace fodr::transport {

// Connects to what an agent offered, shows the secret and waits for its answer, at most `timeoutMS` for each
// of the two. Null, with a few words in `*error`, when the agent can't be reached or doesn't want us.
std::unique_ptr<platform::ByteStream> OpenSideStream(const std::string &host, const SideOffer &offer,
                                                     int timeoutMS, std::string *error);

} // namespace fodr::transport
