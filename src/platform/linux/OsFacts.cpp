#ifndef __linux__
#error "this file is the Linux side"
#endif

#include "platform/linux/OsFacts.h"

#include "platform/Files.h"
#include "platform/Process.h"

#include <elf.h>
#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <sys/utsname.h>
#include <vector>

namespace fodr::platform {

std::string OsReleaseValue(std::istream &file, const std::string &key)
{
    for (std::string line; std::getline(file, line);) {
        if (!line.starts_with(key + '='))
            continue;
        std::string value;
        for (size_t i = key.size() + 1; i < line.size(); ++i) {
            if (line[i] == '\\' && i + 1 < line.size())
                value += line[++i];
            else if (line[i] != '"' && line[i] != '\'')
                value += line[i];
        }
        return value;
    }
    return {};
}

std::string OsVersionValue(const std::string &name)
{
    utsname kernel{};
    if (uname(&kernel) != 0)
        return {};
    if (name == "CurrentVersion")
        return kernel.release;
    if (name == "CurrentBuildNumber")
        return kernel.version;
    if (name != "ProductName")
        return {};
    for (const char *path : {"/etc/os-release", "/usr/lib/os-release"}) {
        std::ifstream file(path);
        std::string product = OsReleaseValue(file, "PRETTY_NAME");
        if (!product.empty())
            return product;
    }
    return kernel.sysname;
}

bool HasRemoteDesktopServices()
{
    return false;
}

// The version block of a program file: an ELF note that every program and library with this room in it has.

namespace {

constexpr char kOwner[8] = "fodr"; // padded to the alignment of notes
constexpr uint32_t kNoteVersion = 1;
constexpr uint32_t kAlignment = 4;
constexpr size_t kMaximumNotes = 65536; // bytes of notes that are looked through

struct VersionNote {
    Elf64_Nhdr header;
    char owner[sizeof(kOwner)];
    char version[(sizeof(FODR_VERSION) + kAlignment - 1) / kAlignment * kAlignment];
};

__attribute__((section(".note.fodr.version"), used,
               aligned(kAlignment))) constexpr VersionNote kVersionNote = {
    {sizeof(kOwner), sizeof(FODR_VERSION), kNoteVersion}, "fodr", FODR_VERSION};

template <typename Record> bool ReadAt(std::ifstream &file, uint64_t offset, Record &record)
{
    file.clear();
    file.seekg(static_cast<std::streamoff>(offset));
    return static_cast<bool>(file.read(reinterpret_cast<char *>(&record), sizeof(record)));
}

size_t Padded(size_t size)
{
    return (size + kAlignment - 1) / kAlignment * kAlignment;
}

// Looks through one segment of notes; true when ours is among them.
bool FindVersion(const std::vector<char> &notes, std::string &version)
{
    size_t at = 0;
    Elf64_Nhdr header{};
    while (notes.size() - at >= sizeof(header)) {
        std::memcpy(&header, &notes[at], sizeof(header));
        at += sizeof(header);
        const size_t rest = notes.size() - at;
        const size_t ownerSize = Padded(header.n_namesz);
        if (ownerSize > rest || header.n_descsz > rest - ownerSize)
            return false;
        const char *owner = notes.data() + at;
        const char *text = owner + ownerSize;
        if (header.n_type == kNoteVersion && header.n_namesz == sizeof(kOwner) &&
            std::memcmp(owner, kOwner, sizeof(kOwner)) == 0) {
            version.assign(text, strnlen(text, header.n_descsz));
            return true;
        }
        at += ownerSize + std::min(Padded(header.n_descsz), rest - ownerSize);
    }
    return false;
}

} // namespace

bool FileProductVersion(const std::string &path, std::string &version)
{
    std::ifstream file(path, std::ios::binary);
    Elf64_Ehdr elf{};
    if (!ReadAt(file, 0, elf) || std::memcmp(elf.e_ident, ELFMAG, SELFMAG) != 0 ||
        elf.e_ident[EI_CLASS] != ELFCLASS64)
        return false;
    for (uint16_t i = 0; i < elf.e_phnum; ++i) {
        Elf64_Phdr segment{};
        if (!ReadAt(file, elf.e_phoff + uint64_t{i} * elf.e_phentsize, segment))
            return false;
        if (segment.p_type != PT_NOTE || segment.p_filesz > kMaximumNotes)
            continue;
        std::vector<char> notes(segment.p_filesz);
        file.seekg(static_cast<std::streamoff>(segment.p_offset));
        if (file.read(notes.data(), static_cast<std::streamsize>(notes.size())) &&
            FindVersion(notes, version))
            return true;
    }
    return false;
}

namespace {

constexpr uint32_t kFirstPerson = 1000; // UID_MIN of login.defs(5)

bool NobodyLogsIn(const std::string &shell)
{
    return shell.ends_with("/nologin") || shell.ends_with("/false");
}

// The path in the hierarchy of the service manager: "0::/system.slice/a.service", or in the older layout
// "1:name=systemd:/...".
std::string UnitPath(const std::string &controlGroups)
{
    std::istringstream lines(controlGroups);
    for (std::string line; std::getline(lines, line);) {
        for (const char *hierarchy : {"::", ":name=systemd:"}) {
            const size_t found = line.find(hierarchy);
            const size_t path = found == std::string::npos ? found : line.find('/', found);
            if (path != std::string::npos)
                return line.substr(path);
        }
    }
    return {};
}

} // namespace

bool IsServiceAccount(const AccountFacts &facts)
{
    if (facts.userId != 0 && facts.userId < kFirstPerson && NobodyLogsIn(facts.shell))
        return true;
    if (facts.inLoginSession)
        return false;
    const std::string unit = UnitPath(facts.controlGroups);
    if (unit.starts_with("/user.slice/")) // also the services that a person runs
        return false;
    return facts.startedAsUnit || (unit.starts_with("/system.slice/") && unit.ends_with(".service"));
}

bool RunsAsService()
{
    AccountFacts facts;
    facts.userId = geteuid();
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd *found = nullptr;
    if (getpwuid_r(geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found)
        facts.shell = entry.pw_shell;
    uint32_t login = kNoSession;
    std::ifstream audit("/proc/self/sessionid");
    facts.inLoginSession =
        (audit >> login && login != kNoSession) || !GetEnvironment("XDG_SESSION_ID").empty();
    facts.startedAsUnit = !GetEnvironment("INVOCATION_ID").empty();
    std::ifstream groups("/proc/self/cgroup");
    facts.controlGroups.assign(std::istreambuf_iterator<char>(groups), {});
    return IsServiceAccount(facts);
}

} // namespace fodr::platform
