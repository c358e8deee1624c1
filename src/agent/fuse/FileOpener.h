// Opens files on the host. An open counts once it is known that the right file was opened.
#pragma once

#include "agent/fuse/PlaceFinder.h"

namespace fodr::agent {

struct Opening {
    nt::NTSTATUS status = nt::STATUS_SUCCESS; // STATUS_FILE_DELETED: the kernel has to look again
    RemoteFilePtr file;
    FileFacts facts;
};

// `flags` are those of open(2).
class FileOpener {
public:
    FileOpener(MountState &mountState, NameFinder &nameFinder, PlaceFinder &placeFinder)
        : mount(mountState), finder(nameFinder), places(placeFinder)
    {}

    uint32_t AccessOf(int flags, const RemoteShare &share) const;
    // Of a file on a host with ids, and on one without.
    Task<Opening> OpenFileOf(NodePtr node, Place place, int flags, uint32_t access, int caller);
    Task<Opening> OpenByName(NodePtr node, Place place, int flags, uint32_t access);
    Task<IoResult> OpenAt(const Place &place, const RemoteShare::CreateCall &open); // which outlive the wait
    RemoteFilePtr NewOpen(const NodePtr &node, const std::shared_ptr<RemoteShare> &share, uint32_t fileId,
                          uint32_t access);
    // The number by which the kernel names the open file, which counts as one of the node's from now on.
    uint64_t Keep(const RemoteFilePtr &file, bool isNew = false);
    // A small file that is opened for reading is read: its bytes come while the kernel asks for its facts.
    void PrimeReading(const RemoteFilePtr &file);
    // Whether a name of the file led to another one. It is lost then, and the kernel has to look again.
    Task<bool> LosesName(NodePtr node);

private:
    Task<IoResult> OpenNode(NodePtr node, Place place, RemoteShare::CreateCall open);
    Task<IoResult> OpenToRead(NodePtr node, Place place, RemoteShare::CreateCall open, FileFacts *facts);
    Task<IoResult> OpenFor(NodePtr node, Place place, RemoteShare::CreateCall open, int flags,
                           FileFacts *facts);
    Task<Opening> OpenAndIdentify(NodePtr node, Place place, int flags, uint32_t access,
                                  RemoteFilePtr *another);
    Task<Opening> OpenByLent(NodePtr node, std::shared_ptr<RemoteShare> share, uint32_t fileId,
                             uint32_t access, std::shared_ptr<void> lender);
    void OpenedAnother(int caller, const NodePtr &parent, const std::string &name,
                       const std::shared_ptr<RemoteShare> &share, uint32_t fileId, uint32_t access,
                       const FileFacts &facts);

    MountState &mount;
    NameFinder &finder;
    PlaceFinder &places;
};

} // namespace fodr::agent
