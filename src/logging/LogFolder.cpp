// Where log files go, and the removal of old ones.
#include "lib/unicode/CaseFolding.h"
#include "logging/FileWriter.h"
#include "platform/Files.h"
#include "platform/Process.h"
#include "platform/SystemError.h"
#include "platform/Volumes.h"
#include "runtime/LogCall.h"
#include "runtime/StringUtils.h"

#include <algorithm>

namespace fodr {

namespace {

bool ServiceFolder(std::string &folder)
{
    std::string found = platform::ServiceLogFolder();
    if (found.empty() || !platform::PathExists(found))
        return false;
    folder = found;
    return true;
}

// "C:\Temp\2\" is the temporary folder of the second session of its user; logs of all sessions stay together.
void CutSessionFolder(std::string &folder)
{
    if (folder.empty() || !platform::IsLocalSeparator(folder.back()))
        return;
    auto digits = std::find_if(folder.rbegin() + 1, folder.rend(), [](char c) { return c < '0' || c > '9'; });
    if (digits != folder.rbegin() + 1 && digits != folder.rend() && platform::IsLocalSeparator(*digits))
        folder.erase(digits.base(), folder.end());
}

bool UserFolder(std::string &folder)
{
    constexpr size_t kLongestPath = 1024;
    constexpr size_t kLongestName = 256;
    std::string found = platform::TemporaryFolder();
    if (found.empty() || found.size() > kLongestPath)
        return false;
    if (StringUtils::EndsWith(found.c_str(), "Windows\\Temp\\", false))
        return ServiceFolder(folder);
    if (platform::TemporaryFolderIsPerSession())
        CutSessionFolder(found);
    std::string user = platform::EnvironmentUserName();
    if (user.empty() || user.size() >= kLongestName)
        user = "default";
    found += "orvane-" + user + platform::LocalSeparator();
    uint32_t error = platform::CreateFolder(found);
    if (error != 0 && error != platform::kErrorAlreadyExists)
        return false;
    folder = found;
    return true;
}

} // namespace

bool DefaultLogFolder(std::string &folder)
{
    return platform::RunsAsService() ? ServiceFolder(folder) : UserFolder(folder);
}

namespace {

constexpr int kFilesPerRun = 20;
constexpr int32_t kNextRunMS = 1000; // while there may be more
constexpr int32_t kNextPassMS = 4 * 3600 * 1000;
constexpr uint64_t kFileTimePerDay = 864'000'000'000;

// Whether more than so many days lie between the two, however many they are.
bool IsOlder(uint64_t time, uint64_t now, uint32_t days)
{
    return time < now && days <= UINT64_MAX / kFileTimePerDay && now - time > days * kFileTimePerDay;
}

} // namespace

bool FileWriter::PollDeleteOldFiles::Run(bool)
{
    const bool more = writer->DeleteOldLogFiles();
    OVMutexLock held(LoggerMutex());
    SetTimeoutMS(more ? kNextRunMS : kNextPassMS, false);
    return true;
}

FileWriter::DirectoryIterator::DirectoryIterator(const std::string &folder, const std::string &pattern)
    : folderPath(folder), searchPath(StringUtils::JoinPath(folder, pattern.empty() ? "*" : pattern)),
      findHandle(folder, pattern.empty() ? "*" : pattern)
{}

RCPtr<FileWriter::FileInfo> FileWriter::DirectoryIterator::Next()
{
    platform::FolderEntry entry;
    while (findHandle.Next(entry)) {
        if (!entry.isFolder)
            return new FileInfo(StringUtils::JoinPath(folderPath, entry.name), entry.lastWriteTime);
    }
    return nullptr;
}

bool FileWriter::DeleteOldLogFiles()
{
    const uint32_t days = maxDaysKept;
    if (days == 0)
        return false;
    std::string folder, pattern, current;
    {
        OVMutexLock held(LoggerMutex());
        folder = folderPath;
        pattern = BuildFileName(0); // the files of every process
        current = currentFilePath;
    }
    LOG_INFO("Deleting \"%s\" older than %d days", StringUtils::JoinPath(folder, pattern).c_str(),
             static_cast<int>(days));
    const uint64_t now = platform::CurrentFileTime();
    if (now == 0)
        return false;
    if (!directoryIterator)
        directoryIterator = new DirectoryIterator(folder, pattern);
    for (int handled = 0; handled < kFilesPerRun;) {
        const RCPtr<FileInfo> info = directoryIterator->Next();
        if (!info) {
            directoryIterator = nullptr;
            return false;
        }
        const char *path = info->path.c_str();
        if (!IsOlder(info->lastWriteTime, now, days)) {
            LOG_VERBOSE("Skipping \"%s\"", path);
            continue;
        }
        ++handled;
        if (AsciiEqualsNoCase(info->path, current)) {
            LOG_INFO("Skipping current log file \"%s\"", path);
            continue;
        }
        platform::RemoveFile(info->path);
        if (platform::PathExists(info->path))
            LOG_WARN("Failed to delete \"%s\"", path);
        else
            LOG_INFO("Deleted \"%s\"", path);
    }
    return true;
}

} // namespace fodr
