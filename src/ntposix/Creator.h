// What creating files and creating streams have in common: attempts that are made again when something
// changed under them. Any thread.
#pragma once

#include "ntposix/NtName.h"
#include "ntposix/OpenFile.h"
#include "platform/Nt.h"

#include <cstdint>
#include <memory>
#include <optional>
#include <sys/types.h>

namespace fodr::ntposix {

struct CreateRequest {
    uint32_t access = 0; // generic rights resolved, MAXIMUM_ALLOWED perhaps among them
    uint32_t share = 0;
    uint32_t disposition = 0;
    uint32_t options = 0;
    uint32_t attributes = 0;
    int64_t allocation = 0;
    std::optional<mode_t> mode{}; // of what is made; else the umask decides
    bool exactName = false;       // no other case of the name is as good
};

class Creator {
public:
    Creator(const Creator &) = delete;
    Creator &operator=(const Creator &) = delete;

    // FILE_OPENED and so on; after a failure FILE_EXISTS, FILE_DOES_NOT_EXIST or 0.
    uint32_t Information() const { return information; }

protected:
    Creator(const NtName &createdName, const CreateRequest &createRequest)
        : name(createdName), request(createRequest)
    {}
    ~Creator() = default;

    // On success `file` is what the last attempt has opened.
    [[nodiscard]] nt::NTSTATUS RunAttempts(std::unique_ptr<OpenFile> *file);
    virtual nt::NTSTATUS RunOnce() = 0;

    bool IsOverwriting() const;
    bool MayCreate() const;

    const NtName &name;
    const CreateRequest &request;
    std::unique_ptr<OpenFile> opened; // of the running attempt, as is what follows
    uint32_t information = 0;
    bool raced = false; // the file changed under the attempt, which is to be made again
};

// Access rights of NT and what they mean to an open of a POSIX file. Any thread.

// The generic rights replaced by what they stand for on a file (MS-SMB2 2.2.13.1.1). MAXIMUM_ALLOWED stays.
[[nodiscard]] uint32_t ResolveGenericRights(uint32_t access);

// What MAXIMUM_ALLOWED gives besides the data rights, which the file itself decides.
inline constexpr uint32_t kAttributeRights = nt::FILE_READ_ATTRIBUTES | nt::FILE_WRITE_ATTRIBUTES |
                                             nt::FILE_READ_EA | nt::FILE_WRITE_EA | nt::READ_CONTROL |
                                             nt::DELETE_ACCESS | nt::SYNCHRONIZE;
inline constexpr uint32_t kReadRights = nt::FILE_READ_DATA | nt::FILE_EXECUTE;
inline constexpr uint32_t kWriteRights = nt::FILE_WRITE_DATA | nt::FILE_APPEND_DATA;

// True when no data of the file is wanted, so that its permissions don't matter.
[[nodiscard]] bool IsAttributeOnly(uint32_t access);

} // namespace fodr::ntposix
