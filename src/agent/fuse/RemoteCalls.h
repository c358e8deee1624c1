// The file calls as a coroutine awaits them. Arguments outlive the wait.
#pragma once

#include "agent/Coroutine.h"
#include "platform/NtRecords.h"

namespace fodr::agent {

inline auto CreateFile(RemoteShare &share, const RemoteShare::CreateCall &call, const std::u16string &path)
{
    return AwaitIo([&](IoHandler done) { share.Create(call, path, std::move(done)); });
}
inline auto CloseFile(RemoteShare &share, uint32_t fileId)
{
    return AwaitIo([&share, fileId](IoHandler done) { share.Close(fileId, std::move(done)); });
}
inline auto QueryFile(RemoteShare &share, uint32_t fileId, uint32_t informationClass)
{
    return AwaitIo([&share, fileId, informationClass](IoHandler done) {
        share.QueryInformation(fileId, informationClass, std::move(done));
    });
}
inline auto QueryVolumeOf(RemoteShare &share, uint32_t fileId, uint32_t informationClass)
{
    return AwaitIo([&share, fileId, informationClass](IoHandler done) {
        share.QueryVolume(fileId, informationClass, std::move(done));
    });
}
inline auto SetFile(RemoteShare &share, uint32_t fileId, uint32_t informationClass, ByteSpan record)
{
    return AwaitIo([&share, fileId, informationClass, record](IoHandler done) {
        share.SetInformation(fileId, informationClass, record, std::move(done));
    });
}
inline auto RenameFile(RemoteShare &share, uint32_t fileId, const std::u16string &target, bool replace)
{
    return AwaitIo([&share, fileId, &target, replace](IoHandler done) {
        share.Rename(fileId, target, replace, std::move(done));
    });
}
inline auto DeleteFile(RemoteShare &share, uint32_t fileId)
{
    return AwaitIo([&share, fileId](IoHandler done) { share.Delete(fileId, std::move(done)); });
}
inline auto SearchDirectory(RemoteShare &share, uint32_t fileId, const std::u16string &name)
{
    return AwaitIo([&share, fileId, &name](IoHandler done) {
        share.QueryDirectory(fileId, nt::FileFullDirectoryInformation, true, name, std::move(done));
    });
}

} // namespace fodr::agent
