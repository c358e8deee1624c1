// Opening and creating files: the work behind NtCreateFile. Any thread.
#pragma once

#include "ntposix/NtName.h"
#include "ntposix/OpenFile.h"

#include <cstdint>
#include <memory>

namespace fodr::ntposix {

// The options that FileModeInformation tells.
inline constexpr uint32_t kModeOptions = nt::FILE_WRITE_THROUGH | nt::FILE_SEQUENTIAL_ONLY |
                                         nt::FILE_NO_INTERMEDIATE_BUFFERING | nt::FILE_SYNCHRONOUS_IO_ALERT |
                                         nt::FILE_SYNCHRONOUS_IO_NONALERT | nt::FILE_DELETE_ON_CLOSE;

struct CreateRequest {
    uint32_t access = 0; // generic rights resolved, MAXIMUM_ALLOWED perhaps among them
    uint32_t share = 0;
    uint32_t disposition = 0;
    uint32_t options = 0;
    uint32_t attributes = 0;
    int64_t allocation = 0;
    bool exactName = false; // no other case of the name is as good
};

// What the I/O manager refuses before it asks a file system. STATUS_SUCCESS or STATUS_INVALID_PARAMETER.
[[nodiscard]] nt::NTSTATUS CheckCreateParameters(const CreateRequest &request);

struct Place;

class FileCreator {
public:
    FileCreator(const NtName &fileName, const CreateRequest &createRequest)
        : name(fileName), request(createRequest)
    {}

    // On success the file is open and admitted beside the others of its object: it must see Cleanup.
    [[nodiscard]] nt::NTSTATUS Run(std::unique_ptr<OpenFile> *file);
    // FILE_OPENED and so on; after a failure FILE_EXISTS, FILE_DOES_NOT_EXIST or 0.
    uint32_t Information() const { return information; }

private:
    nt::NTSTATUS RunOnce();
    nt::NTSTATUS OpenExisting();
    nt::NTSTATUS CheckKind() const;
    nt::NTSTATUS CheckReadOnly() const;
    nt::NTSTATUS OpenDescriptor();
    int TryOpen(int flags);
    nt::NTSTATUS Overwrite();

    nt::NTSTATUS CreateMissing();
    nt::NTSTATUS CreateFile();
    nt::NTSTATUS CreateDirectory();
    nt::NTSTATUS CreationStatus(int error);

    nt::NTSTATUS Admit(uint32_t extraAccess);
    nt::NTSTATUS Finish();
    bool IsOverwriting() const;
    bool MayCreate() const;
    bool WantsWriting() const;
    int NoFollow() const;

    const NtName &name;
    const CreateRequest &request;
    Place *place = nullptr; // of the running attempt
    uint64_t deletionsBefore = 0;
    std::unique_ptr<OpenFile> opened;
    uint32_t information = 0;
    bool raced = false; // the file changed under the attempt, which is to be made again
};

} // namespace fodr::ntposix
