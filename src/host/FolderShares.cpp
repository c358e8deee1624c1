#include "host/FolderShares.h"

#include "lib/unicode/CodeSet.h"
#include "platform/Volumes.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace fodr::host {
namespace {

constexpr char kCommandName[] = "FORLDER_REDIRECTION_CMD"; // the spelling is the plug-in's
constexpr char kSender[] = "fodr";
constexpr std::string_view kCapability = "RDPDR_CAPABILITY_STATUS,";
constexpr std::string_view kStatus = "FOLDER_REDIRECTION_CMD_STATUS,";
constexpr std::string_view kRenamed = "Share name change to ";
constexpr char kFilesTag[] = "(OVFCP)"; // makes a share of named files
constexpr std::string_view kInvalidInNames = "<>\"/\\|:?@*";

// A name that begins with a tag would make a share of another kind.
struct Tag {
    std::string_view tag;
    std::string_view harmless;
};
constexpr Tag kTags[] = {{"(OVFR)", "(OV.FR)"}, {"(OVDND)", "(OV.DND)"}, {"(OVFCP)", "(OV.FCP)"}};

struct Explanation {
    std::string_view status; // its beginning
    const char *words;
};
constexpr Explanation kExplanations[] = {
    {"Folder not exist", "the folder is gone or can't be read"},
    {"Invalid share path", "its path can't be used"},
    {"Policy is not received", "the other side hasn't said what may be shared"},
    {"Redirecting ", "the other side doesn't allow it"},
    {"Internal system error", "the plug-in can't serve it"},
    {"Fails to communicate", "the other side can't be told of it"},
    {"Failed with code", "the other side refused it"},
};

std::string Explain(const std::string &status)
{
    for (const Explanation &explanation : kExplanations) {
        if (status.starts_with(explanation.status))
            return explanation.words;
    }
    return status;
}

std::string NameInCommand(const FolderShare &share)
{
    return (share.files.empty() ? "" : kFilesTag) + share.name;
}

// The text, and behind its end the files, each with an end of its own.
std::string AddCommand(const FolderShare &share)
{
    const std::string pathAndName = share.asked + "|" + NameInCommand(share);
    if (share.files.empty())
        return "ADD," + pathAndName;
    std::string command = "ADD," + std::to_string(share.files.size()) + "," + pathAndName;
    for (const std::string &file : share.files)
        command += '\0' + FolderShares::AskedForm(file);
    return command;
}

std::string WithSeparator(const std::string &folder)
{
    const bool hasOne = !folder.empty() && platform::IsLocalSeparator(folder.back());
    return hasOne ? folder : folder + platform::LocalSeparator();
}

size_t LengthOfCharacter(std::string_view text)
{
    const auto lead = static_cast<unsigned char>(text.front());
    const size_t length = lead < 0x80 ? 1 : lead < 0xE0 ? 2 : lead < 0xF0 ? 3 : 4;
    std::u16string unused;
    return length <= text.size() && Utf8ToUtf16(text.substr(0, length), unused) ? length : 0;
}

} // namespace

std::string FolderShares::AskedForm(const std::string &path)
{
    return platform::PathInSharedForm(path);
}

std::string FolderShares::NameFor(const std::string &text)
{
    std::string name;
    for (std::string_view rest = text; !rest.empty();) {
        const size_t length = LengthOfCharacter(rest);
        const bool plain =
            length != 0 && (length > 1 || (static_cast<unsigned char>(rest.front()) >= 0x20 &&
                                           kInvalidInNames.find(rest.front()) == kInvalidInNames.npos));
        name += plain ? std::string(rest.substr(0, length)) : "_";
        rest.remove_prefix(std::max<size_t>(length, 1));
    }
    name.erase(name.find_last_not_of(' ') + 1);
    for (const Tag &tag : kTags) {
        if (name.starts_with(tag.tag))
            name.replace(0, tag.tag.size(), tag.harmless);
    }
    return name.empty() ? "_" : name;
}

std::vector<std::string> FolderShares::OfferedForms(const std::string &path,
                                                    const std::vector<std::string> &files)
{
    const std::string folder = AskedForm(path);
    if (files.empty())
        return {folder};
    std::vector<std::string> forms;
    for (const std::string &file : files)
        forms.push_back(WithSeparator(folder) + AskedForm(file));
    return forms;
}

const FolderShare *FolderShares::Add(const std::string &path, const std::string &name,
                                     const std::vector<std::string> &files)
{
    FolderShare share;
    share.path = path;
    share.asked = AskedForm(path);
    share.name = name;
    share.files = files;
    share.cookie = "fodr-" + std::to_string(++lastCookie);
    for (const FolderShare &other : shares) {
        if (other.path == path)
            return nullptr;
    }
    shares.push_back(share);
    if (takesShares)
        Ask(&shares.back());
    return FindCookie(share.cookie); // an answer may have come already
}

bool FolderShares::Remove(const std::string &pathOrName)
{
    const FolderShare *found = Find(pathOrName);
    if (found == nullptr)
        return false;
    const FolderShare share = *found;
    std::erase_if(shares, [&](const FolderShare &other) { return other.cookie == share.cookie; });
    const std::string command = "REMOVE," + share.asked + "|" + NameInCommand(share);
    bus->Send(kSender, kCommandName, share.cookie.c_str(), command.c_str());
    return true;
}

void FolderShares::Ask(FolderShare *share)
{
    const std::string cookie = share->cookie;
    const std::string command = AddCommand(*share);
    share->state = ShareState::Asked;
    if (!bus->Send(kSender, kCommandName, cookie.c_str(), command.c_str()))
        Settle(share, ShareState::Refused, "the plug-in doesn't take commands");
}

void FolderShares::HandleNotice(const std::string &cookie, const std::string &text)
{
    if (text.starts_with(kCapability)) {
        HandleCapability(text.substr(kCapability.size()));
        return;
    }
    const auto share = std::find_if(shares.begin(), shares.end(),
                                    [&](const FolderShare &entry) { return entry.cookie == cookie; });
    if (text.starts_with(kStatus) && share != shares.end())
        HandleStatus(&*share, text.substr(kStatus.size()));
}

void FolderShares::HandleCapability(const std::string &text)
{
    disabled = text == "DISABLED";
    takesShares = !disabled;
    for (FolderShare &share : shares) {
        if (share.state != ShareState::Waiting)
            continue;
        if (takesShares)
            Ask(&share);
        else
            Settle(&share, ShareState::Refused, "the other side takes no shares");
    }
}

void FolderShares::HandleStatus(FolderShare *share, const std::string &status)
{
    if (status.starts_with(kRenamed))
        share->name = status.substr(kRenamed.size()); // not the last word
    else if (status == "SUCCEEDED")
        Settle(share, ShareState::Ready, "");
    else
        Settle(share, ShareState::Refused, Explain(status));
}

void FolderShares::Settle(FolderShare *share, ShareState state, const std::string &problem)
{
    share->state = state;
    share->problem = problem;
    onChanged(*share);
}

void FolderShares::StartOver()
{
    takesShares = disabled = false;
    for (FolderShare &share : shares) {
        share.state = ShareState::Waiting;
        share.problem.clear();
    }
}

const FolderShare *FolderShares::Find(const std::string &pathOrName) const
{
    for (const FolderShare &share : shares) {
        if (share.path == pathOrName)
            return &share;
    }
    for (const FolderShare &share : shares) {
        if (share.name == pathOrName)
            return &share;
    }
    return nullptr;
}

const FolderShare *FolderShares::FindCookie(const std::string &cookie) const
{
    for (const FolderShare &share : shares) {
        if (share.cookie == cookie)
            return &share;
    }
    return nullptr;
}

std::vector<std::string> FolderShares::OfferedForms() const
{
    std::vector<std::string> all;
    for (const FolderShare &share : shares) {
        for (std::string &form : OfferedForms(share.path, share.files))
            all.push_back(std::move(form));
    }
    return all;
}

} // namespace fodr::host
