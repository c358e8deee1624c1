// A share that shows only named files, and what its root's listing says.
#pragma once

#include "fileservice/AllowListFileSystem.h"
#include "fileservice/RedirectedDeviceAccessControl.h"
#include "fileservice/Share.h"

#include <atomic>
#include <functional>
#include <utility>

namespace fodr::test {

using Names = std::vector<std::string>;

class CountingFileSystem : public AllowListFileSystem {
public:
    CountingFileSystem(const std::string &path, std::shared_ptr<const AllowAccessList> list)
        : AllowListFileSystem(path, std::move(list))
    {}
    nt::NTSTATUS RedirectedQueryDirectoryFile(uint32_t fileId, nt::IO_STATUS_BLOCK *ioStatus,
                                              uint8_t **outBuffer, uint32_t fileInfoClass, bool restartScan,
                                              const char16_t *pattern, bool multiEntry) override
    {
        ++queries;
        if (meanwhile)
            std::exchange(meanwhile, {})();
        return AllowListFileSystem::RedirectedQueryDirectoryFile(fileId, ioStatus, outBuffer, fileInfoClass,
                                                                 restartScan, pattern, multiEntry);
    }
    std::atomic<int> queries{0};
    std::function<void()> meanwhile; // called once, within the next query
};

// A share that shows the names alone.
class ListedShare : public Share {
public:
    explicit ListedShare(const Names &names, bool onlyEntries = false, bool multiEntry = false)
    {
        settings.multiEntryDirectoryQuery = multiEntry;
        auto list = std::make_shared<AllowAccessList>(settings.path, names, onlyEntries);
        auto counting = std::make_unique<CountingFileSystem>(settings.path, list);
        files = counting.get();
        fileSystem = nullptr;
        device =
            RCPtr<RedirectedDevice>(new RedirectedDeviceAccessControl(std::move(counting), settings, list));
    }
    bool MayOpen(const std::string &relative)
    {
        return device->CheckCreateDriveAccess(settings.path + relative);
    }
    int QueriesSinceLast() { return files->queries.exchange(0); }
    nt::NTSTATUS Open(std::u16string_view path, CreateArguments arguments = {})
    {
        File file = Create(path, arguments);
        if (file.Id() != 0)
            file.Close();
        return file.created.Status();
    }

    CountingFileSystem *files;
};

inline std::string Narrow(std::u16string_view text)
{
    return std::string(text.begin(), text.end());
}

struct ClassShape {
    uint32_t infoClass;
    uint32_t nameLength, name;
};
inline constexpr ClassShape kWireShapes[] = {
    {nt::FileDirectoryInformation, 60, 64},
    {nt::FileFullDirectoryInformation, 60, 68},
    {nt::FileBothDirectoryInformation, 60, 93},
    {nt::FileNamesInformation, 8, 12},
};
inline constexpr ClassShape kFull = kWireShapes[1];

// The names of a chain. Every entry but the last must tell its own size.
inline Names NamesOf(const Completion &listing, const ClassShape &shape)
{
    Names names;
    std::string data = listing.Data();
    for (size_t at = 0, next = 1; next != 0 && at < listing.Length(); at += next) {
        next = listing.At<uint32_t>(at);
        std::string wide = data.substr(at + shape.name, listing.At<uint32_t>(at + shape.nameLength));
        EXPECT_EQ(next == 0 ? listing.Length() - at : next, shape.name + wide.size());
        std::string &name = names.emplace_back();
        for (size_t i = 0; i < wide.size(); i += 2)
            name += wide[i];
    }
    return names;
}

inline Names ListRoot(ListedShare &share, const ClassShape &shape = kFull)
{
    File root = share.Create(u"\\");
    Names names = NamesOf(root.List(shape.infoClass, true, u"\\*"), shape);
    EXPECT_EQ(root.List(shape.infoClass, false).Status(), nt::STATUS_NO_MORE_FILES);
    root.Close();
    return names;
}

} // namespace fodr::test
