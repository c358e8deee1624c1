// Opening and creating files: the work behind NtCreateFile. Any thread.
#pragma once

#include "ntposix/Creator.h"
#include "ntposix/Lookup.h"

namespace fodr::ntposix {

// The options that FileModeInformation tells.
inline constexpr uint32_t kModeOptions = nt::FILE_WRITE_THROUGH | nt::FILE_SEQUENTIAL_ONLY |
                                         nt::FILE_NO_INTERMEDIATE_BUFFERING | nt::FILE_SYNCHRONOUS_IO_ALERT |
                                         nt::FILE_SYNCHRONOUS_IO_NONALERT | nt::FILE_DELETE_ON_CLOSE;

// What the I/O manager refuses before it asks a file system. STATUS_SUCCESS or STATUS_INVALID_PARAMETER.
[[nodiscard]] nt::NTSTATUS CheckCreateParameters(const CreateRequest &request);

class FileCreator final : public Creator {
public:
    FileCreator(const NtName &fileName, const CreateRequest &createRequest) : Creator(fileName, createRequest)
    {}

    // On success the file is open and admitted beside the others of its object: it must see Cleanup.
    [[nodiscard]] nt::NTSTATUS Run(std::unique_ptr<OpenFile> *file);

private:
    nt::NTSTATUS RunOnce() override;
    bool OpenAtAGlance();
    void FillOpened();
    bool MeetsOtherCase() const;
    nt::NTSTATUS OpenExisting();
    nt::NTSTATUS AdmitExisting();
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
    bool WantsWriting() const;
    int NoFollow() const;

    LookupResult *place = nullptr; // of the running attempt
    LookupOptions lookup;
    uint64_t deletionsBefore = 0;
};

// Opening and creating named streams: what NtCreateFile does with a name that has a stream suffix. Any
// thread.
class StreamCreator final : public Creator {
public:
    StreamCreator(const NtName &streamName, const CreateRequest &createRequest)
        : Creator(streamName, createRequest)
    {}

    // As FileCreator's. The file that a new stream belongs to is made where it is missing.
    [[nodiscard]] nt::NTSTATUS Run(std::unique_ptr<OpenFile> *file);

private:
    nt::NTSTATUS RunOnce() override;
    nt::NTSTATUS OpenBase();
    void LeaveBase();
    void MakeBaseReadOnly();
    nt::NTSTATUS FindOrMake();
    int Find();
    nt::NTSTATUS CheckRights();
    nt::NTSTATUS Admit();
    nt::NTSTATUS Overwrite();

    std::unique_ptr<OpenFile> base; // of the running attempt, as is what follows
    bool madeBase = false;
};

} // namespace fodr::ntposix
