// The file system that the kernel sees: each operation is a coroutine of remote file calls that answers its
// request from where the last outcome came in. No thread waits for the other side.
#pragma once

#include "agent/fuse/ChangeWatcher.h"
#include "agent/fuse/Operations.h"

namespace fodr::agent {

class FileSystem {
public:
    using Options = MountState::Options;
    explicit FileSystem(const Options &options) : mount(options) {}

    // Shares come and go on reader threads. False: the share isn't shown.
    bool AddShare(std::shared_ptr<RemoteShare> share);
    void RemoveShare(uint32_t deviceId);
    bool HasShare() const;
    // Asks what the share's host offers (RemoteShare::Has), then calls the function; before AddShare.
    static Detached AskFeatures(std::shared_ptr<RemoteShare> share, InlineFunction<void()> done);

    // For the kernel's notices; null before the session ends.
    void SetSession(fuse_session *fuseSession);
    // When the kernel can't come any more, before the client goes: gives up what is open.
    void Clear();
    bool HasWritesInFlight() const { return mount.writeWindow.InFlight() != 0; }
    void WhenNoWritesAreInFlight(TransferWindow::Waiter waiter)
    {
        mount.writeWindow.WhenEmpty(std::move(waiter));
    }
    InterruptWatch &Interrupts() { return interrupts; }
    void Forget(uint64_t nodeId, uint64_t lookups) { mount.table.Forget(nodeId, lookups); }

private:
    static std::string FolderName(const RemoteDevice &device);

    MountState mount;
    InterruptWatch interrupts;
    std::atomic<uint32_t> rootDevice{0}; // of the share that is the root
    NameFinder finder{mount};
    PlaceFinder places{mount, finder};
    FactsFinder facts{mount, finder};
    FileOpener opener{mount, finder, places};
    StickyNames hidden{mount, finder};

public:
    // Operations by their names in fuse_lowlevel_ops. Texts and bytes are borrowed for the call.
    DirectoryOperations directories{mount, places};
    FileOperations files{mount, places, opener, hidden};
    AttributeOperations attributes{mount, places, facts};
    RangeOperations ranges{mount};
    LinkOperations links{mount, places};
    XattrOperations xattrs{mount, places};
    LockOperations locks{mount, places, opener};
    NameOperations names{mount, finder, places, facts, hidden, directories};
    ChangeWatcher events{mount, directories};
};

} // namespace fodr::agent
