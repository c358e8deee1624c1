// What creating files and creating streams have in common: attempts that are made again when something
// changed under them. Any thread.
#pragma once

#include "ntposix/NtName.h"
#include "ntposix/OpenFile.h"

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

} // namespace fodr::ntposix
