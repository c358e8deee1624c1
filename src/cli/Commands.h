// The commands of `fodr`. Each takes what the command line said, as it was written, and gives the exit code.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

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

} // namespace fodr::cli
