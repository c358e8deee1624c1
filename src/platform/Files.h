// Files and folders of the program itself, such as its log, and of the user; a share's are NtCreateFile's.
//
// Paths are UTF-8. Errors are Windows' numbers (platform/SystemError.h), 0 for success. Any thread, but an
// iterator and a stream are one thread's at a time.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace fodr::platform {

// The clock of file times (lib/misc/FileTime.h); 0 when it can't be read.
uint64_t CurrentFileTime();

// Whether there is something of this name; what a link leads to counts.
bool PathExists(const std::string &path);

// Makes the file, empty, unless it is there already; what others have open is no hindrance. The folder has to
// be there.
uint32_t CreateEmptyFile(const std::string &path);
uint32_t RemoveFile(const std::string &path);

// Makes the last folder of the path, for this user alone. kErrorAlreadyExists when the user has it already,
// kErrorAccessDenied when what is there is another user's, as anybody may put it into a common folder.
uint32_t CreateFolder(const std::string &path);
// Only one that is empty.
uint32_t RemoveFolder(const std::string &path);

// A stream of the C library in one of its modes; other readers and writers of the file stay possible, and no
// child process inherits it. Null on failure, with the reason as the thread's last error.
std::FILE *OpenSharedFile(const std::string &path, const char *mode);
// Where the stream stands; -1 on failure.
int64_t PositionOfStream(std::FILE *stream);

// False when there is no such file.
bool SizeOfFile(const std::string &path, int64_t &size);
// False for what can't be opened for reading, such as a folder.
bool LastWriteTimeOfFile(const std::string &path, uint64_t &time);

struct FolderEntry {
    std::string name;
    bool isFolder = false;
    uint64_t lastWriteTime = 0;
};

// Lists the entries of a folder that match a pattern of '*' and '?', without regard to case, in no order.
// "." and ".." may be among them. What comes or goes meanwhile may be listed or not; all else is, once.
class FolderIterator {
public:
    // Of a folder that can't be read it finds nothing.
    FolderIterator(const std::string &folder, const std::string &pattern);
    ~FolderIterator();
    FolderIterator(const FolderIterator &) = delete;
    FolderIterator &operator=(const FolderIterator &) = delete;

    // False at the end.
    bool Next(FolderEntry &entry);

private:
    struct State;
    std::unique_ptr<State> state;
};

// Folders of the user for things that live as long as a process, environment, and the terminal. Any thread,
// but SetEnvironment, which is for the time before other threads are started.

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
