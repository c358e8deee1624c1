// Opening and creating named streams: what NtCreateFile does with a name that has a stream suffix. Any
// thread.
#pragma once

#include "ntposix/Create.h"

namespace fodr::ntposix {

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
