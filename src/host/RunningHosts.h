// The runtime folder of this user's running hosts: each has a folder of its own there, named by its process
// id, with its control socket and its settings.
#pragma once

#include "platform/ByteStream.h"

#include <cstdint>
#include <memory>
#include <string>

namespace fodr::host {

// This process's own folder, made anew; those that dead hosts have left are removed. Empty, with a few words
// in
// `*error`, when it can't be had.
std::string MakeHostFolder(std::string *error);
void RemoveHostFolder(const std::string &folder);

std::string ControlSocketOf(const std::string &hostFolder);

// A connection to the host of this process id, or, for 0, to the one that was started last. Null when none
// runs.
std::unique_ptr<platform::ByteStream> ConnectToHost(uint32_t processId);

} // namespace fodr::host
