// The desktop client's text commands that add and remove shared folders.
//
//     ADD,<path>|<name>              REMOVE,<path>|<name>
//     ADD,<count>,<path>|<name> NUL file NUL file NUL ...      with a count above 0
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace fodr {

// ObserverCallback (odpservice.h): `context` is the RdpdrChannelManager. Runs on the host's bus thread. The
// host must deliver as many texts behind the first as the count says: no length comes with them.
bool OnSharedFolderCommand(void *context, const char *sender, const char *cookie, const char *data);

// Splits the first text. False, with the outputs as far as they were read, when there is no action.
bool ParseCmdData(const std::string &command, std::string &action, int32_t &count, std::string &path,
                  std::string &name);

// Reads `count` (taken as unsigned) texts from `start`. False at the first empty one; those before it stay.
bool ParseFileList(const char *start, int32_t count, std::vector<std::string> &list);

} // namespace fodr
