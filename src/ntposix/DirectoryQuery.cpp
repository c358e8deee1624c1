// NtQueryDirectoryFile.
#include "ntposix/DirectoryScan.h"
#include "ntposix/HandleTable.h"
#include "ntposix/NtCall.h"
#include "ntposix/OpenFile.h"

namespace fodr::ntposix {

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
    const uint32_t minimum = ListingBuffer::MinimumLength(infoClass);
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

    ListingBuffer records(buffer, length, infoClass);
    DirectoryScan::Query query{.records = &records,
                               .needsFacts = ListingBuffer::NeedsFacts(infoClass),
                               .single = returnSingleEntry,
                               .restart = restartScan,
                               .pattern = {}};
    if (fileName && fileName->Buffer)
        query.pattern = {fileName->Buffer, fileName->Length / sizeof(char16_t)};
    const NTSTATUS status = WithoutThrowing([&] { return List(*open, query); });
    return Complete(ioStatus, status, records.Written());
}

} // namespace fodr::nt
