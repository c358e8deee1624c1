// Folders of the user for things that live as long as a process, environment, and the terminal. Any thread,
// but SetEnvironment, which is for the time before other threads are started.
#pragma once

#include <cstdint>
#include <string>

namespace fodr::platform {

// Where this user's running processes keep sockets and the like. Not created.
std::string RuntimeFolder();

// Makes the folder, and those above it, or finds it; only this user may enter it. False, with a few words in
// `*error`, when it can't be had or belongs to another user.
bool CreatePrivateFolder(const std::string &path, std::string *error);

// Where anybody may put files for a while, with a separator at its end. Empty when it can't be told.
std::string TemporaryFolder();

// Whether each session of a user has one below a common one, whose name is a number.
bool TemporaryFolderIsPerSession();

// Where services of this product log, with a separator at its end: "/var/log/orvane/", or "Orvane\ODM\logs\"
// below the data folder of all programs. Not created, and may be missing.
std::string ServiceLogFolder();

// The value of an environment variable, empty when it isn't set.
std::string GetEnvironment(const char *name);
void SetEnvironment(const char *name, const std::string &value);

// Where the settings store of this user is read from.
std::string SettingsFolder();

// Makes a settings folder of this user's own where the machine's is the only one and can't be written, with a
// copy of what the machine's holds, so that nothing changes by it. The folder, or empty when none was made.
std::string MakeSettingsFolder();

// A terminal that obeys escape sequences.
bool ErrorOutputIsTerminal();

// Whether a process of this id runs, whoever it belongs to.
bool ProcessExists(uint32_t id);

} // namespace fodr::platform
