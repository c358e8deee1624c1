#include "fileservice/Share.h"

#include <random>

namespace fodr::test {

using namespace nt;

std::string WireText(std::u16string_view text)
{
    std::string bytes(reinterpret_cast<const char *>(text.data()), text.size() * 2);
    return bytes.append(2, '\0');
}

std::string Little(uint64_t value, size_t size)
{
    std::string bytes(8, '\0');
    StoreLittle(reinterpret_cast<uint8_t *>(bytes.data()), value);
    return bytes.substr(0, size);
}

std::vector<ListingShape> ListingShapes(bool multiEntry)
{
    return {
        {FileDirectoryInformation, 60, 64},
        {FileFullDirectoryInformation, 60, 68, multiEntry},
        {FileBothDirectoryInformation, 60, multiEntry ? 94u : 93u, multiEntry},
        {FileNamesInformation, 8, 12},
        {FileIdBothDirectoryInformation, 60, 104},
        {FileIdFullDirectoryInformation, 60, 80},
    };
}

Names NamesOf(const Completion &listing, const ListingShape &shape)
{
    Names names;
    std::string data = listing.Data();
    EXPECT_EQ(listing.Length(), data.size());
    size_t next = 1;
    for (size_t at = 0; next != 0 && at + shape.name <= data.size(); at += next) {
        next = listing.At<uint32_t>(at);
        std::string name = data.substr(at + shape.name, listing.At<uint32_t>(at + shape.nameLength));
        size_t end = shape.name + name.size();
        if (next == 0)
            EXPECT_LT(data.size() - at - end, shape.isMany ? 8u : 1u); // may be filled up too
        else
            EXPECT_EQ(next, shape.isMany ? (end + 7) / 8 * 8 : end);
        std::erase(name, '\0');
        names.push_back(name);
    }
    EXPECT_EQ(next, 0u);
    return names;
}

Share::Share(const std::function<void(RedirectedDeviceSettings &)> &change, const ShareRules &rules)
{
    static std::atomic<unsigned> made{0};
    folder = std::filesystem::temp_directory_path() /
             ("fodr-share-" + std::to_string(std::random_device()()) + "-" + std::to_string(++made));
    std::filesystem::create_directories(folder);
    settings.channel = &channel;
    settings.deviceId = kDeviceId;
    settings.path = "\\??\\" + folder.string();
    settings.sharePath = folder.string();
    if (change)
        change(settings);
    auto ownFileSystem = std::make_unique<WatchedFileSystem>(settings.path, rules);
    fileSystem = ownFileSystem.get();
    device = RCPtr<RedirectedDevice>(new RedirectedDevice(std::move(ownFileSystem), settings));
}

Share::~Share()
{
    device = nullptr;
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

File Share::Create(std::u16string_view path, CreateArguments arguments)
{
    std::string wirePath = WireText(path);
    DR_CREATE_REQ create{arguments.access,
                         0,
                         FILE_ATTRIBUTE_NORMAL,
                         arguments.share,
                         arguments.disposition,
                         arguments.options,
                         static_cast<uint32_t>(wirePath.size())};
    return File(*this, Ask(Request(0, IRP_MJ_CREATE, 0, create, wirePath)));
}

NTSTATUS Share::Open(std::u16string_view path, CreateArguments arguments)
{
    return Create(path, arguments).created.Status();
}

File Share::Made(const std::string &name, std::string_view contents)
{
    Put(name, contents);
    return Create(u"\\" + std::u16string(name.begin(), name.end()));
}

bool Share::Serve(const Bytes &packet)
{
    RdpdrStreamPtr stream(RdpdrStream::Create(packet.size()));
    stream->Write(packet.data(), packet.size());
    stream->SetPosition(0);
    return device->OnIoRequest(stream.get());
}

Completion Share::Ask(const Bytes &packet)
{
    uint32_t completionId = LoadLittle<uint32_t>(packet.data() + 12);
    EXPECT_TRUE(Serve(packet));
    Completion completion = channel.Take(completionId);
    EXPECT_EQ(completion.Fixed().DeviceId, device->GetDeviceId()); // not that of the request; 0 if none came
    EXPECT_GE(completion.Size(), kMinCompletionSize);
    return completion;
}

Completion File::Rename(std::u16string_view target, uint8_t rootDirectory)
{
    std::string name = WireText(target);
    std::string record{'\1', static_cast<char>(rootDirectory)}; // replaces what is there
    return Set(nt::FileRenameInformation, record + Little(name.size(), 4) + name);
}

Completion File::RenameInto(uint64_t directoryId, std::u16string_view leaf, uint32_t flags,
                            uint32_t infoClass)
{
    std::string name = WireText(leaf);
    name.resize(name.size() - sizeof(char16_t)); // without a terminator
    return Set(infoClass, Little(flags) + Little(directoryId) + Little(name.size(), 4) + name);
}

Completion File::List(uint32_t infoClass, bool restart, std::u16string_view path)
{
    std::string wirePath = path.empty() ? std::string() : WireText(path);
    return Ask(IRP_MJ_DIRECTORY_CONTROL, DR_DRIVE_QUERY_DIRECTORY_REQ{infoClass, restart, SizeOf(wirePath)},
               wirePath, IRP_MN_QUERY_DIRECTORY);
}

Names File::ListAll(const ListingShape &shape, std::u16string_view path)
{
    Names names;
    Completion answer = List(shape.infoClass, true, path);
    for (; answer.Status() == STATUS_SUCCESS && names.size() < 99; answer = List(shape.infoClass, false)) {
        Names more = NamesOf(answer, shape);
        EXPECT_EQ(more.size() > 1, shape.isMany);
        names.insert(names.end(), more.begin(), more.end());
    }
    EXPECT_EQ(answer.Status(), STATUS_NO_MORE_FILES);
    EXPECT_EQ(answer.Size(), kMinCompletionSize);
    return names;
}

Completion File::Lock(uint32_t operation, std::vector<LockRange> ranges, bool failImmediately)
{
    std::string list;
    for (const LockRange &range : ranges)
        list += Little(range.length) + Little(range.offset);
    DR_DRIVE_LOCK_REQ lock{operation, failImmediately ? kLockFailImmediately : 0,
                           static_cast<uint32_t>(ranges.size())};
    return Ask(IRP_MJ_LOCK_CONTROL, lock, list);
}

} // namespace fodr::test
