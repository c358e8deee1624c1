// The version block of a program file: an ELF note that every program and library with this room in it has.
#include "platform/OsFacts.h"

#ifndef __linux__
#error "this file is the Linux side"
#endif

#include <elf.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <vector>

namespace fodr::platform {

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

} // namespace fodr::platform
