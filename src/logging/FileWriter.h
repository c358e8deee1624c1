// Log lines to a file: a new one when it has grown enough, old ones removed, none when the disk is full.
#pragma once

#include "logging/LogWriter.h"
#include "platform/Files.h"
#include "runtime/OVPollItem.h"
#include "runtime/OVTimer.h"
#include "runtime/RCObject.h"

#include <atomic>
#include <cstdint>
#include <string>

namespace fodr {

namespace FileUtils {
class OVFile;
}

// Buffered from the start. Its files are "orvane-<log>-<process id>.log", with "(<number>)" behind the id of
// all but a process's first one.
class FileWriter : public LogWriter {
public:
    FileWriter();
    ~FileWriter() override;

    // "filename" and "folderPath" while no file is open; "maxDaysKept", "maxFileSizeMB", "maxRollingFiles",
    // "diskThresholdLowMB", "diskThresholdHighMB" at any time. Names are compared without case; any other is
    // taken and ignored. An empty name or value isn't taken.
    bool SetValue(const std::string &name, const std::string &value) override;
    // Of "filename" the open file's name, of "maxFileSizeMB" the limit that holds now.
    bool GetValue(const std::string &name, std::string &value) override;
    bool OpenSink() override;
    bool WriteMessage(const LogMessage &message) override;
    bool CloseSink() override;
    // Looks once a batch whether the file is full, or the disk.
    void EndWrite() override;
    // While the disk is full, WARN and above it are lost without being counted.
    virtual bool IsSuppressed(const LogMessage &message);

protected:
    // What removes old files on the poll thread.
    RCPtr<OVPollItem> DeletionItem() const;

private:
    class PollDeleteOldFiles;
    class FileInfo;
    class DirectoryIterator;

    static constexpr uint32_t kLimitByLevel = UINT32_MAX;

    // Of one file of this process; with 0 a pattern for all files of this log.
    std::string BuildFileName(uint32_t index) const;
    uint32_t SizeLimitMB() const;
    void StartDeletion();
    bool IsFull() const;
    void Roll();
    void CheckDisk();
    void CheckSuspended(uint64_t freeBytes);
    void ReportSuspended(uint64_t freeBytes);
    void ReportResumed(uint64_t freeBytes);
    // The prefix of a line, without level and function name.
    std::string ReportPrefix();
    void WriteReport(const std::string &text);

    // On the poll thread. True when there may be more.
    bool DeleteOldLogFiles();

    // Names change under LoggerMutex, by whoever may use the sink; all others read them under it.
    std::string filename;
    std::string currentFileName;
    std::string folderPath;
    std::string currentFilePath;
    std::atomic<uint32_t> maxDaysKept{7};               // 0: old files stay
    std::atomic<uint32_t> maxFileSizeMB{kLimitByLevel}; // 0: one file for all
    std::atomic<uint32_t> maxRollingFiles{4};           // behind the open one; 0: all stay
    uint32_t fileIndex = 0;                             // of the open file
    std::atomic<uint32_t> diskThresholdLowMB{200};      // free space at which logging stops
    std::atomic<uint32_t> diskThresholdHighMB{500};     // and at which it goes on
    std::atomic<bool> lowThresholdLowered{false};
    std::atomic<bool> diskSuspended{false};
    OVElapsedTimer suspendTimer;
    RCPtr<FileUtils::OVFile> file; // null while closed; changes as the names do
    RCPtr<PollDeleteOldFiles> pollDeleteOldFiles;
    RCPtr<DirectoryIterator> directoryIterator; // goes on where the last run stopped
};

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

    // Null at the end. A folder that can't be read is empty.
    RCPtr<FileInfo> Next();

private:
    const std::string folderPath;
    const std::string searchPath;
    platform::FolderIterator findHandle;
};

// Where log files go by default. A service logs into the common folder of services, which has to be there;
// anybody else into a folder of the user's own among the temporary ones, which is made. With a separator at
// the end. False, with `folder` left alone, when it can't be had.
bool DefaultLogFolder(std::string &folder);

} // namespace fodr
