#include "ntposix/DirectoryIndex.h"

#include "lib/unicode/CaseFolding.h"
#include "lib/unicode/NameMapping.h"
#include "ntposix/Fd.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <memory>

namespace fodr::ntposix {

namespace {

// Most names are ASCII that stands for itself; those are folded byte by byte.
bool IsPlain(std::string_view name)
{
    return std::all_of(name.begin(), name.end(), [](char c) {
        return c >= 0x20 && c < 0x7F && std::string_view("\"*<>?|:\\").find(c) == std::string_view::npos;
    });
}

uint64_t Mix(uint64_t hash, char16_t unit)
{
    return (hash ^ FoldUnit(unit)) * 0x100000001B3u;
}

constexpr uint64_t kHashStart = 0xCBF29CE484222325u;

} // namespace

uint64_t FoldedHash(std::string_view name)
{
    uint64_t hash = kHashStart;
    if (IsPlain(name)) {
        for (char c : name)
            hash = Mix(hash, static_cast<unsigned char>(c));
        return hash;
    }
    for (char16_t unit : NtNameFromPosix(name))
        hash = Mix(hash, unit);
    return hash;
}

bool EqualsIgnoringCase(std::string_view a, std::string_view b)
{
    return a == b || EqualsFolded(NtNameFromPosix(a), NtNameFromPosix(b));
}

std::optional<std::string> DirectoryIndex::Find(std::string_view name) const
{
    const auto [first, last] = names.equal_range(FoldedHash(name));
    const std::string *best = nullptr;
    for (auto candidate = first; candidate != last; ++candidate) {
        const std::string &present = candidate->second;
        if (present == name)
            return present;
        if (EqualsIgnoringCase(present, name) && (!best || present < *best))
            best = &present;
    }
    return best ? std::optional(*best) : std::nullopt;
}

// Changes may tell again what a scan has seen already; the last word on a name is right all the same.
void DirectoryIndex::Apply(const std::vector<NameChange> &changes)
{
    for (const NameChange &change : changes) {
        Remove(change.name);
        if (change.added)
            Add(change.name);
    }
}

int DirectoryIndex::Scan(int directory)
{
    Clear();
    Fd readable(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!readable)
        return errno;
    const std::unique_ptr<DIR, int (*)(DIR *)> listing(fdopendir(readable.Get()), &closedir);
    if (!listing)
        return errno;
    readable.Release();
    for (errno = 0; const dirent *entry = readdir(listing.get()); errno = 0) {
        const std::string_view name = entry->d_name;
        if (name != "." && name != "..")
            Add(name);
    }
    const int error = errno;
    if (error != 0)
        Clear();
    return error;
}

void DirectoryIndex::Clear()
{
    names.clear();
    built = false;
}

void DirectoryIndex::Add(std::string_view name)
{
    names.emplace(FoldedHash(name), name);
}

void DirectoryIndex::Remove(std::string_view name)
{
    const auto [first, last] = names.equal_range(FoldedHash(name));
    const auto found = std::find_if(first, last, [name](const auto &entry) { return entry.second == name; });
    if (found != last)
        names.erase(found);
}

} // namespace fodr::ntposix
