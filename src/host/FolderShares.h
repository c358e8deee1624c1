// The folders of one run: asks the plug-in over the message bus to share each, as a desktop client would, and
// follows what becomes of it.
//
// Used by one thread, but that the bus may call its listeners on others; those pass notices on to
// HandleNotice.
#pragma once

#include "host/PluginHost.h"

#include <functional>
#include <string>
#include <vector>

namespace fodr::host {

enum class ShareState {
    Waiting, // until the other side says whether it takes shares
    Asked,
    Ready,
    Refused,
};

struct FolderShare {
    std::string path;  // absolute, as the system has it: any bytes
    std::string asked; // the same as the plug-in is given it: UTF-8
    std::string name;  // on the other side
    // Names of what alone is shown of the folder, as the system has them; empty: all of it.
    std::vector<std::string> files;
    std::string cookie;
    ShareState state = ShareState::Waiting;
    std::string problem; // why it was refused, in a few words
};

class FolderShares {
public:
    // What the plug-in says is heard as broadcasts of this name; its arguments go to HandleNotice.
    static constexpr char kNoticeName[] = "FOLDER_REDIRECTION_NOTIFICATION";

    // `changed` is called whenever the state of a share has changed.
    FolderShares(MessageBus *messageBus, std::function<void(const FolderShare &)> changed)
        : bus(messageBus), onChanged(std::move(changed))
    {}

    // The form in which the plug-in is given a path: bytes that NT names can't hold are mapped one to one.
    static std::string AskedForm(const std::string &path);
    // A name that a share can have, made of any bytes; a last component, for one.
    static std::string NameFor(const std::string &text);
    // What is given to the other side of a folder, in the form of AskedForm: itself, or those files of it.
    static std::vector<std::string> OfferedForms(const std::string &path,
                                                 const std::vector<std::string> &files);

    // Adds a folder, or those files of it, and asks for it as soon as shares are taken. The name is that of
    // NameFor. Null when the folder is there already.
    const FolderShare *Add(const std::string &path, const std::string &name,
                           const std::vector<std::string> &files = {});
    // Takes back the share of this path or name. False when there is none.
    bool Remove(const std::string &pathOrName);

    void HandleNotice(const std::string &cookie, const std::string &text);
    // The plug-in's instance is gone: everything is asked for anew when the next takes shares.
    void StartOver();

    const std::vector<FolderShare> &All() const { return shares; }
    const FolderShare *Find(const std::string &pathOrName) const;
    const FolderShare *FindCookie(const std::string &cookie) const;
    // Of all shares.
    std::vector<std::string> OfferedForms() const;
    // The other side said that it takes no shares at all.
    bool Disabled() const { return disabled; }

private:
    void Ask(FolderShare *share);
    void HandleCapability(const std::string &text);
    void HandleStatus(FolderShare *share, const std::string &status);
    void Settle(FolderShare *share, ShareState state, const std::string &problem);

    MessageBus *const bus;
    const std::function<void(const FolderShare &)> onChanged;
    std::vector<FolderShare> shares;
    uint32_t lastCookie = 0;
    bool takesShares = false;
    bool disabled = false;
};

} // namespace fodr::host
