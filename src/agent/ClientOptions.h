// What the agent asks of the plug-in at the start of a connection.
#pragma once

#include "rdpdr/wire/RdpdrConstants.h"

#include <cstdint>
#include <string>
#include <vector>

namespace fodr::agent {

// A folder that the policy names: shared whether or not anybody on the other side asks for it.
struct PolicyFolder {
    uint8_t permission = 0; // 0: the policy's default
    std::string path;       // UTF-8, as the other machine writes it; "*all" stands for all its drives
};

// An older agent has no room for them in its policy.
inline constexpr unsigned kFirstVersionWithDeviceRules = FODR_VERSION_FOLDER_BLOCK_LENGTH;

struct PolicyOptions {
    bool enabled = true;
    // Only what the policy names, or what the other side's user shares with a permission of his own. When
    // false the plug-in also shares the drives and folders of its settings.
    bool sharedByAgent = true;
    uint8_t defaultPermission = 5; // 1 and 2 make every share read-only
    std::vector<PolicyFolder> folders;
    std::string excludeRule; // of the device filter (lib/unicode/ForeignText.h), a list; empty: none
    std::string includeRule;
};

enum class SideChannel {
    None,
    Tcp,             // the agent listens, the host connects for the data object
    LeftToThePlugin, // the plug-in's settings decide
};

// What the mount makes of symbolic links.
enum class LinkView {
    Show,   // they are links
    Follow, // the host follows them: what they lead to is shown in their place
    Hide,
};

struct ClientOptions {
    std::string token;         // shown to the host in our Hello; empty: none
    std::string expectedToken; // what the host must show in its Hello; empty: nothing was agreed
    uint16_t version = FODR_CLIENT_VERSION;
    bool multiEntryDirectoryQuery = true;
    bool preRead = true;             // completions carry what is asked next
    bool driveLetterMapping = false; // refuses plain folders
    PolicyOptions policy;
    SideChannel sideChannel = SideChannel::None;
    std::string sideChannelAddress = "127.0.0.1"; // to listen on; empty: all
    LinkView links = LinkView::Show;
    unsigned ioTimeoutSeconds = 10; // without a completion for so long a request fails; 0: never
    // Requests and shares outlive a connection: what can wait does so for the next one, within its time.
    bool outlivesConnections = false;
};

} // namespace fodr::agent
