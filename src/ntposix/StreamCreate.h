// Opening and creating named streams: what NtCreateFile does with a name that has a stream suffix. Any
// thread.
#pragma once

#include "ntposix/Create.h"

namespace fodr::ntposix {

class StreamCreator {
public:
    StreamCreator(const NtName &streamName, const CreateRequest &createRequest)
        : name(streamName), request(createRequest)
    {}

    // As FileCreator's. The file that a new stream belongs to is made where it is missing.
    [[nodiscard]] nt::NTSTATUS Run(std::unique_ptr<OpenFile> *file);
    uint32_t Information() const { return information; }

private:
    nt::NTSTATUS RunOnce();
    nt::NTSTATUS OpenBase();
    void LeaveBase();
    void MakeBaseReadOnly();
    nt::NTSTATUS FindOrMake();
    int Find();
    nt::NTSTATUS CheckRights();
    nt::NTSTATUS Admit();
    nt::NTSTATUS Overwrite();

    const NtName &name;
    const CreateRequest &request;
    std::unique_ptr<OpenFile> base; // of the running attempt, as is what follows
    bool madeBase = false;
    std::unique_ptr<OpenFile> opened;
    uint32_t information = 0;
    bool raced = false;
};

} // namespace fodr::ntposix
