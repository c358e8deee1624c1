// The commands of `fodr`, their exit codes, and what they share. Each command takes what the command line
// said, as it was written, and gives the exit code.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}
namespace fodr::agent {
struct AgentOptions;
}

namespace fodr::cli {

struct ShareWords {
    std::vector<std::string> folders;
    bool sends = false; // they are files, to be sent one by one, or folders likewise
    std::optional<std::string> mount, to, tcp, listen; // at most one
    std::string name;
    std::string layout; // single, folders, or empty
    bool readOnly = false;
    std::optional<bool> reconnect;
    bool verbose = false;
    bool trace = false;
    std::string nameCase; // sensitive, insensitive
    bool linksOutside = false;
    std::optional<bool> fixed; // nothing can be added while it runs
    std::string tokenFile;
    std::string sideChannel;
    std::string sshCommand;
    std::string remoteProgram;
    std::optional<unsigned> ioTimeoutSeconds;
    std::vector<std::string> agentWords;
    std::vector<std::string> command;
};
int RunShare(const ShareWords &words);

struct AgentCommandWords {
    std::string mount;
    bool stdio = false;
    std::optional<std::string> listen, connect;
    std::string layout = "single";
    bool readOnly = false;
    bool disabled = false;
    bool onlyForced = false;
    std::vector<std::string> forced;
    bool noPreRead = false;
    bool singleEntries = false;
    bool driveLetters = false;
    bool denyWriters = false;
    bool noEvents = false;
    std::string owners = "mine", links = "show";
    std::optional<unsigned> protocol, permission;
    bool allowOther = false;
    std::optional<unsigned> cacheMS, ioTimeoutSeconds, shareWaitMS, lingerSeconds;
    std::string sideChannel = "none";
    std::string sideAddress;
    std::string excludeRule, includeRule;
    std::string tokenFile;
};
int RunAgentCommand(const AgentCommandWords &words);

// Of a running share: the one of process id `processId`, or, for 0, the one that was started last.
int RunAdd(uint32_t processId, const std::string &folder, const std::string &name);
int RunRemove(uint32_t processId, const std::string &folderOrName);
int RunList(uint32_t processId, bool json);
int RunStatus(uint32_t processId, bool json);
int RunTraffic(uint32_t processId, bool json);

int RunRegister(bool registering);

// On the plug-in's key of the settings store. `type` is empty for the setting's own.
int RunConfigGet(const std::string &name);
int RunConfigSet(const std::string &name, const std::vector<std::string> &values, const std::string &type);
int RunConfigUnset(const std::string &name);
int RunConfigList(bool all);
int RunConfigWatch(const std::string &name);

// The agreed token: the file's content without line ends, else FODR_TOKEN. False, after a complaint, when the
// file can't be read.
bool ReadToken(const std::string &file, std::string *token);

// Exit codes of the command; docs/command.md lists them. Those of `fodr agent` are agent::AgentExit, with the
// same numbers for the same things.
enum ExitCode : int {
    EXIT_DONE = 0,
    EXIT_OTHER = 1,
    EXIT_USAGE = 2,
    EXIT_MOUNT_POINT = 3, // can't be used as one
    EXIT_LOST = 4,        // the agent or the connection is gone
    EXIT_REFUSED = 5,     // the other side doesn't take the share, or us
    EXIT_STILL_USED = 6,  // ended, with files still open in the mount
    EXIT_FOLDER = 7,      // a folder to share can't be shared
    EXIT_NO_FUSE = 8,
    EXIT_NO_PLUGIN = 9,
    EXIT_SSH = 10,           // ssh itself failed, or there is no fodr at the other end
    EXIT_NOT_RUNNING = 11,   // no running host to talk to
    EXIT_CANNOT_START = 126, // the command behind -- can't be started
};

// The path of this program.
std::string OwnProgram();

// What FODR_PLUGIN names, else the library in ../lib seen from this program, else beside it. Empty, with a
// sentence in `*problem`, when there is none.
std::string FindPlugin(std::string *problem);

// ---- The command line of `fodr agent` ----

// Has `app` put what it parses into `words`.
void AddAgentOptions(CLI::App *app, AgentCommandWords *words);

// All of the options but token and mount point. False, with a sentence in `*problem`, for words that can't
// all be followed.
[[nodiscard]] bool AgentOptionsFrom(const AgentCommandWords &words, agent::AgentOptions *filled,
                                    std::string *problem);

} // namespace fodr::cli
