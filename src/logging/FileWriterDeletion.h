// The parts of FileWriter that remove old files.
#pragma once

#include "logging/FileWriter.h"
#include "platform/Files.h"
#include "runtime/OVPollItem.h"
#include "runtime/RCObject.h"

#include <cstdint>
#include <memory>
#include <string>

namespace fodr {

// Removes some files at a time, so that a full folder doesn't hold up the thread that writes the log.
class FileWriter::PollDeleteOldFiles : public OVPollItem {
public:
    explicit PollDeleteOldFiles(FileWriter *log) : OVPollItem("DeleteOldFiles"), writer(log) {}

    bool Run(bool timedOut) override;

private:
    FileWriter *const writer; // takes this off its thread before it goes
};

class FileWriter::FileInfo : public RCObject {
public:
    FileInfo(const std::string &filePath, uint64_t time) : path(filePath), lastWriteTime(time) {}

    const std::string path;
    const uint64_t lastWriteTime; // platform/Files.h
};

// The files of a folder, one after the other, in no order.
class FileWriter::DirectoryIterator : public RCObject {
public:
    // An empty pattern matches all.
    DirectoryIterator(const std::string &folder, const std::string &pattern);

    // Null at the end, which is at once for a folder that can't be read.
    RCPtr<FileInfo> Next();
    // Folder and pattern.
    const std::string &SearchPath() const { return searchPath; }

private:
    const std::string folderPath;
    const std::string searchPath;
    platform::FolderIterator findHandle;
};

} // namespace fodr
