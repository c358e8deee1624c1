#include "logging/FileWriterDeletion.h"

#include "lib/unicode/CaseFolding.h"
#include "runtime/LogCall.h"
#include "runtime/StringUtils.h"

namespace fodr {

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
