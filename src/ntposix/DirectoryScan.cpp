#include "ntposix/DirectoryScan.h"

#include "lib/unicode/NameMapping.h"
#include "ntposix/DirectoryIndex.h"
#include "ntposix/FileMetadata.h"
#include "ntposix/HandleTable.h"
#include "ntposix/NtCall.h"
#include "ntposix/OpenFile.h"
#include "platform/Nt.h"

#include <dirent.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <new>

namespace fodr::ntposix {

namespace {

constexpr size_t kBufferSize = 64 * 1024;

std::atomic<int> underWay{0};

bool IsSelfOrParent(const char *name)
{
    return name[0] == '.' && (name[1] == 0 || (name[1] == '.' && name[2] == 0));
}

} // namespace

bool DirentReader::MakeBuffer()
{
    if (underWay.fetch_add(1) >= kMostUnderWay) {
        --underWay;
        return false;
    }
    buffer.reset(new (std::nothrow) char[kBufferSize]);
    underWay -= !buffer;
    return buffer != nullptr;
}

void DirentReader::FreeBuffer()
{
    underWay -= buffer != nullptr;
    buffer.reset();
}

int DirentReader::Rewind()
{
    filled = position = 0;
    again = false;
    return lseek(fd, 0, SEEK_SET) == 0 ? 0 : errno;
}

const DirentReader::Entry *DirentReader::Next(int *error)
{
    *error = 0;
    if (again) {
        again = false;
        return &current;
    }
    for (;;) {
        if (position == filled) {
            if (!buffer && !MakeBuffer()) {
                *error = ENOMEM;
                return nullptr;
            }
            const ssize_t got = getdents64(fd, buffer.get(), kBufferSize);
            if (got <= 0) {
                // A directory that was removed meanwhile has no entries.
                *error = got < 0 && errno != ENOENT ? errno : 0;
                filled = position = 0;
                FreeBuffer();
                return nullptr;
            }
            filled = static_cast<size_t>(got);
            position = 0;
        }
        const auto *entry = reinterpret_cast<const dirent64 *>(buffer.get() + position);
        position += entry->d_reclen;
        if (!IsSelfOrParent(entry->d_name)) {
            current = {entry->d_name, strlen(entry->d_name), entry->d_ino, entry->d_type};
            return &current;
        }
    }
}

nt::NTSTATUS DirectoryScan::Continue(const Query &query)
{
    // A search that begins and finds nothing ends otherwise than one that went on to its end.
    const bool first = !begun || (query.restart && !query.pattern.empty());
    if (const nt::NTSTATUS status = Begin(query); nt::IsError(status))
        return status;
    while (stage != Stage::End) {
        switch (Next(query)) {
        case Step::Added:
            if (query.single)
                return nt::STATUS_SUCCESS;
            break;
        case Step::Skipped:
            break;
        case Step::Full:
            return nt::STATUS_SUCCESS;
        case Step::Truncated:
            return nt::STATUS_BUFFER_OVERFLOW;
        }
    }
    if (query.records->Written() != 0)
        return nt::STATUS_SUCCESS;
    if (nt::IsError(failure))
        return failure;
    // That a name isn't in a folder that was deleted says nothing about the folder's successor.
    if (pattern.IsExact() && IsRemoved(directory))
        return nt::STATUS_DELETE_PENDING;
    return first ? nt::STATUS_NO_SUCH_FILE : nt::STATUS_NO_MORE_FILES;
}

// MS-FSA 2.1.5.6.3: the pattern of the first call holds for the handle, but a restart may bring another.
nt::NTSTATUS DirectoryScan::Begin(const Query &query)
{
    if (begun && !query.restart)
        return nt::STATUS_SUCCESS;
    if (!begun || !query.pattern.empty()) {
        auto compiled = NamePattern::Compile(query.pattern);
        if (!compiled)
            return nt::STATUS_OBJECT_NAME_INVALID;
        pattern = std::move(*compiled);
    }
    begun = true;
    stage = Stage::Self;
    failure = nt::STATUS_SUCCESS;
    if (const int error = reader.Rewind())
        Fail(error);
    return failure;
}

DirectoryScan::Step DirectoryScan::Next(const Query &query)
{
    Step step = Step::Skipped;
    switch (stage) {
    case Stage::Self:
        step = Append(query, ".", DT_DIR);
        if (step != Step::Full)
            stage = Stage::Parent;
        break;
    case Stage::Parent:
        step = Append(query, "..", DT_DIR);
        if (step != Step::Full)
            stage = pattern.IsExact() ? Stage::Named : Stage::Others;
        break;
    case Stage::Named:
        step = AppendNamed(query);
        if (step != Step::Full)
            stage = Stage::End;
        break;
    case Stage::Others:
        step = AppendOther(query);
        break;
    case Stage::End:
        break;
    }
    return step;
}

// A plain name is looked up, which spares reading a large directory for one entry.
DirectoryScan::Step DirectoryScan::AppendNamed(const Query &query)
{
    std::string wanted;
    if (!PosixNameFromNt(pattern.ExactName(), wanted) || wanted.empty() || wanted == "." || wanted == "..")
        return Step::Skipped;
    FileMetadata facts;
    const int error = StatAt(directory, wanted.c_str(), Links::kDontFollow, &facts);
    if (error != 0 && error != ENOENT && error != ENAMETOOLONG)
        return Fail(error);
    if (error != 0) {
        if (caseSensitive)
            return Step::Skipped;
        const DirectoryLease lease(directory);
        if (lease.Error() != 0)
            return Fail(lease.Error());
        const auto present = lease.Find(wanted);
        if (!present)
            return Step::Skipped;
        return Append(query, present->c_str(), DT_UNKNOWN);
    }
    return Append(query, wanted.c_str(), DT_UNKNOWN, &facts);
}

DirectoryScan::Step DirectoryScan::AppendOther(const Query &query)
{
    int error;
    const DirentReader::Entry *entry = reader.Next(&error);
    if (!entry && error != 0)
        return Fail(error);
    if (!entry) {
        stage = Stage::End;
        return Step::Skipped;
    }
    const Step step = Append(query, entry->name, entry->type);
    if (step == Step::Full)
        reader.PutBack();
    return step;
}

DirectoryScan::Step DirectoryScan::Append(const Query &query, const char *name, unsigned char type,
                                          const FileMetadata *known)
{
    ntName.clear();
    AppendNtName(name, ntName);
    if (!pattern.Matches(ntName))
        return Step::Skipped;
    // Asking the file system about an entry that has no room would be for nothing.
    if (!query.records->HasRoom(ntName.size()))
        return Step::Full;
    FileMetadata facts = known ? *known : FileMetadata();
    if (query.needsFacts && !known && Look(name, type, &facts) == ENOENT)
        return Step::Skipped;
    ResolveId(rootDevice, &facts);
    facts.attributes = CompleteAttributes(facts.attributes | HiddenByName(name));
    return query.records->Append(ntName, facts) ? Step::Added : Step::Truncated;
}

// The rest of the directory isn't known, so it must not look as if there were none.
DirectoryScan::Step DirectoryScan::Fail(int error)
{
    failure = StatusOfErrno(error);
    stage = Stage::End;
    return Step::Skipped;
}

// A link is listed as a link. Of an entry that can't be looked at (in a directory that may be read but not
// searched, on a damaged disk) the name and the kind are told, and that there are no facts: its id is 0. 0 or
// an errno; ENOENT for an entry that is gone.
int DirectoryScan::Look(const char *name, unsigned char type, FileMetadata *facts) const
{
    const int error = StatAt(directory, name, Links::kDontFollow, facts);
    if (error != 0)
        *facts = FactsOfType(static_cast<mode_t>(DTTOIF(type)));
    return error;
}

// NtQueryDirectoryFile.

namespace {

nt::NTSTATUS List(OpenFile &file, const DirectoryScan::Query &query)
{
    const MutexLock guard(file.services.scanLock);
    if (!file.services.scan)
        file.services.scan =
            std::make_unique<DirectoryScan>(file.fd.Get(), file.RootDevice(), file.IsCaseSensitive());
    return file.services.scan->Continue(query);
}

} // namespace

} // namespace fodr::ntposix

namespace fodr::nt {

NTSTATUS NtQueryDirectoryFile(HANDLE file, HANDLE, void *, void *, IO_STATUS_BLOCK *ioStatus, void *buffer,
                              uint32_t length, uint32_t infoClass, bool returnSingleEntry,
                              UNICODE_STRING *fileName, bool restartScan)
{
    using namespace ntposix;
    const uint32_t minimum = ListingWriter::MinimumLength(infoClass);
    if (minimum == 0)
        return Complete(ioStatus, STATUS_INVALID_INFO_CLASS, 0);
    if (length < minimum)
        return Complete(ioStatus, STATUS_INFO_LENGTH_MISMATCH, 0);
    const OpenFileRef open = HandleTable::Instance().Find(file);
    if (!open)
        return Complete(ioStatus, STATUS_INVALID_HANDLE, 0);
    if (!open->HasAccess(FILE_LIST_DIRECTORY))
        return Complete(ioStatus, STATUS_ACCESS_DENIED, 0);
    if (!open->IsDirectory())
        return Complete(ioStatus, STATUS_INVALID_PARAMETER, 0);

    ListingWriter records(buffer, length, infoClass);
    DirectoryScan::Query query{.records = &records,
                               .needsFacts = ListingWriter::NeedsFacts(infoClass),
                               .single = returnSingleEntry,
                               .restart = restartScan,
                               .pattern = {}};
    if (fileName && fileName->Buffer)
        query.pattern = {fileName->Buffer, fileName->Length / sizeof(char16_t)};
    const NTSTATUS status = WithoutThrowing([&] { return List(*open, query); });
    return Complete(ioStatus, status, records.Written());
}

} // namespace fodr::nt
