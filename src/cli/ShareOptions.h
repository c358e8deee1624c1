// What `fodr share` was asked for, checked.
#pragma once

#include "host/PrivateSettings.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace fodr::cli {

struct AgentTarget {
    enum class Kind {
        Local,   // an agent on this machine
        Ssh,     // one that ssh starts on another
        Connect, // one that listens
        Listen,  // one that connects to us
    };
    Kind kind = Kind::Local;
    std::string mountPoint; // Local, Ssh; Local: empty is a default one
    std::string host;       // Ssh: user@host; Connect: host; Listen: address, empty is the loopback
    uint16_t port = 0;      // Connect, Listen

    // For the middle of a sentence.
    std::string Name() const
    {
        return kind == Kind::Local ? "this machine" : kind == Kind::Listen ? "the agent" : host;
    }
    std::string PlaceOf(const std::string &mount) const
    {
        return kind == Kind::Ssh ? host + ":" + mount : mount;
    }
};

struct WantedFolder {
    std::string path; // absolute, links resolved
    std::string name;
    std::vector<std::string> files; // what of it is sent, by name; empty: the folder is shared as it is

    // What the other side gets to see.
    std::vector<std::string> Paths() const { return PathsBelow(path, files); }
    // `folder` itself if there are no files.
    static std::vector<std::string> PathsBelow(const std::string &folder,
                                               const std::vector<std::string> &files)
    {
        std::vector<std::string> paths;
        for (const std::string &file : files)
            paths.push_back(folder + (folder.ends_with('/') ? "" : "/") + file);
        return files.empty() ? std::vector<std::string>{folder} : paths;
    }
};

struct ShareOptions {
    std::vector<WantedFolder> folders;
    AgentTarget target;
    bool folderLayout = false;
    bool readOnly = false;
    bool reconnect = false;
    bool verbose = false;
    bool fixed = false; // nothing can be added while it runs
    host::PluginWishes plugin;
    std::string token;                        // both ends know it; empty: none was agreed
    std::string sideChannel;                  // as the agent's option: none, tcp, plugin
    std::optional<unsigned> ioTimeoutSeconds; // the agent's; none: its default
    std::vector<std::string> agentWords;      // put on the agent's command line as they are
    std::vector<std::string> sshWords;        // the program and its first arguments
    std::string remoteProgram;                // fodr on the other machine
    std::vector<std::string> command;         // to be run while the shares are there; empty: none
    std::string pluginPath;
    std::string ownProgram; // this one
};

} // namespace fodr::cli
