#include "cli/MountFolder.h"

#include "platform/Files.h"
#include "platform/Volumes.h"

#include <filesystem>

namespace fodr::cli {
namespace {

namespace fs = std::filesystem;
using platform::MountHealth;

constexpr int kDefaultNames = 1000; // that are tried
constexpr int kEndingMS = 2000;     // for an agent that was just killed

std::string Quoted(const std::string &path)
{
    return "\"" + path + "\"";
}

// Absolute, with links resolved as far as there is something. The last component stays unresolved when its
// mount has lost its process.
std::string AbsolutePath(const std::string &path)
{
    std::error_code error;
    fs::path whole = fs::absolute(path, error);
    if (!whole.has_filename())
        whole = whole.parent_path();
    const fs::path folder = fs::weakly_canonical(whole.parent_path(), error);
    const fs::path last = error ? whole : folder / whole.filename();
    const fs::path resolved = fs::canonical(last, error);
    return (error ? last : resolved).string();
}

bool IsAtOrBelow(const std::string &path, const std::string &folder)
{
    const std::string inside = folder.ends_with('/') ? folder : folder + "/";
    return path == folder || path.starts_with(inside);
}

} // namespace

std::unique_ptr<MountFolder> MountFolder::Prepare(const std::string &given, std::string *problem)
{
    const std::string path = AbsolutePath(given);
    const MountHealth former = platform::InspectEndingMount(path, "fodr", kEndingMS);
    if (former == MountHealth::Dead && !platform::DetachMount(path)) {
        *problem = "an earlier mount at " + Quoted(path) + " hangs and can't be taken away: unmount it first";
        return nullptr;
    }
    if (former == MountHealth::Alive) {
        *problem =
            "something is mounted at " + Quoted(path) + " already: choose another folder or unmount it";
        return nullptr;
    }
    std::error_code error;
    const bool made = !fs::exists(path, error) && fs::create_directory(path, error);
    if (error) {
        *problem = "the mount point " + Quoted(path) + " can't be made: " + error.message();
        return nullptr;
    }
    if (!fs::is_directory(path, error)) {
        *problem = "the mount point " + Quoted(path) + " is not a folder: choose an empty folder";
        return nullptr;
    }
    std::unique_ptr<MountFolder> point(new MountFolder(path, made));
    if (!fs::is_empty(path, error) || error) {
        *problem = error ? "the mount point " + Quoted(path) + " can't be read: " + error.message()
                         : "the mount point " + Quoted(path) + " is not empty: choose an empty folder";
        return nullptr;
    }
    return point;
}

std::unique_ptr<MountFolder> MountFolder::PrepareDefault(const std::string &name, std::string *problem)
{
    std::string reason;
    const fs::path folder = platform::RuntimeFolder();
    if (!platform::CreatePrivateFolder(folder.string(), &reason)) {
        *problem =
            "the folder " + Quoted(folder.string()) + " can't be used: " + reason + "; name one with --mount";
        return nullptr;
    }
    for (int number = 0; number < kDefaultNames; ++number) {
        const std::string tried = number == 0 ? name : name + "(" + std::to_string(number) + ")";
        const std::string path = (folder / tried).string();
        const bool dead = platform::InspectMount(path) == MountHealth::Dead;
        std::error_code error;
        const bool there = dead || fs::exists(path, error);
        // One that is there belongs to another share, unless its mount is dead or it was left behind empty.
        if (there && !dead &&
            (platform::InspectMount(path) == MountHealth::Alive || !fs::is_empty(path, error)))
            continue;
        auto point = Prepare(path, problem);
        if (point) {
            fs::permissions(path, fs::perms::owner_all, error);
            point->made = true;
        }
        return point;
    }
    *problem =
        "every mount point like " + Quoted((folder / name).string()) + " is in use: name one with --mount";
    return nullptr;
}

MountFolder::~MountFolder()
{
    // Not as a file first, as the library does it: a confined run may remove folders alone.
    if (made && platform::InspectMount(path) == MountHealth::None)
        platform::RemoveFolder(path);
}

bool MountFolder::Clear(const std::function<bool(const std::string &path)> &detach)
{
    return platform::InspectMount(path) == MountHealth::None || detach(path);
}

// A mount that shows itself has no end; one that hides what it shows has no beginning.
std::string MountFolder::ConflictWith(const std::string &sharedPath) const
{
    if (IsAtOrBelow(sharedPath, path))
        return "the mount point \"" + path + "\" would hide \"" + sharedPath +
               "\" itself: choose a folder elsewhere";
    if (IsAtOrBelow(path, sharedPath))
        return "the mount point \"" + path + "\" lies in \"" + sharedPath +
               "\", which would show itself: choose a folder elsewhere";
    return {};
}

} // namespace fodr::cli
