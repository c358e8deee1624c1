#include "logging/FileWriter.h"

#include "lib/unicode/CaseFolding.h"
#include "logging/Logger.h"
#include "logging/LoggerManager.h"
#include "platform/Files.h"
#include "platform/Process.h"
#include "platform/Volumes.h"
#include "runtime/OVFile.h"
#include "runtime/OVTimer.h"
#include "runtime/StringUtils.h"

#include <algorithm>

namespace fodr {

namespace {

constexpr uint64_t kMegabyte = 1 << 20;
constexpr uint32_t kLargestFileSizeMB = 1024;
constexpr uint32_t kMostRollingFiles = 1000;
constexpr uint64_t kResumeMarginMB = 50; // so that the two thresholds aren't passed by turns

constexpr const char *kReportMark = "*******";

// What parts the lines of a former process of this id from those of this one.
constexpr const char *kSessionBanner =
    "\n"
    "******************************************************************************\n"
    "************************   NEW LOG SESSION STARTING   ************************\n"
    "******************************************************************************\n"
    "\n";

uint32_t SizeLimitOfLevel(int32_t level)
{
    switch (level) {
    case LOG_LEVEL_DEBUG:
        return 50;
    case LOG_LEVEL_TRACE:
        return 75;
    case LOG_LEVEL_VERBOSE:
        return 99;
    default:
        return 15;
    }
}

} // namespace

FileWriter::FileWriter() : LogWriter(LOG_WRITER_FILE), pollDeleteOldFiles(new PollDeleteOldFiles(this))
{
    SetBuffering(true);
}

FileWriter::~FileWriter()
{
    pollDeleteOldFiles->Remove(true); // it points here
}

RCPtr<OVPollItem> FileWriter::DeletionItem() const
{
    return pollDeleteOldFiles;
}

// ---- Settings ----

bool FileWriter::SetValue(const std::string &name, const std::string &value)
{
    OVMutexLock held(LoggerMutex());
    if (name.empty() || value.empty())
        return false;
    const bool isFilename = AsciiEqualsNoCase(name, "filename");
    if (isFilename || AsciiEqualsNoCase(name, "folderPath")) {
        if (file)
            return false;
        (isFilename ? filename : folderPath) = value;
        return true;
    }
    const uint32_t number = ParseSettingNumber(value);
    if (AsciiEqualsNoCase(name, "maxDaysKept")) {
        maxDaysKept = number;
    } else if (AsciiEqualsNoCase(name, "maxFileSizeMB")) {
        maxFileSizeMB = number == kLimitByLevel ? number : std::min(number, kLargestFileSizeMB);
    } else if (AsciiEqualsNoCase(name, "maxRollingFiles")) {
        maxRollingFiles = std::min(number, kMostRollingFiles);
    } else if (AsciiEqualsNoCase(name, "diskThresholdLowMB")) {
        if (number < diskThresholdLowMB)
            lowThresholdLowered = true;
        diskThresholdLowMB = number;
    } else if (AsciiEqualsNoCase(name, "diskThresholdHighMB")) {
        diskThresholdHighMB = number;
    }
    return true;
}

bool FileWriter::GetValue(const std::string &name, std::string &value)
{
    OVMutexLock held(LoggerMutex());
    uint32_t number = 0;
    if (AsciiEqualsNoCase(name, "filename")) {
        value = currentFileName;
        return true;
    }
    if (AsciiEqualsNoCase(name, "folderPath")) {
        value = folderPath;
        return true;
    }
    if (AsciiEqualsNoCase(name, "maxDaysKept"))
        number = maxDaysKept;
    else if (AsciiEqualsNoCase(name, "maxFileSizeMB"))
        number = SizeLimitMB();
    else if (AsciiEqualsNoCase(name, "maxRollingFiles"))
        number = maxRollingFiles;
    else if (AsciiEqualsNoCase(name, "diskThresholdLowMB"))
        number = diskThresholdLowMB;
    else if (AsciiEqualsNoCase(name, "diskThresholdHighMB"))
        number = diskThresholdHighMB;
    else
        return LogWriter::GetValue(name, value);
    value = StringUtils::Format("%u", number);
    return true;
}

uint32_t FileWriter::SizeLimitMB() const
{
    if (maxFileSizeMB != kLimitByLevel)
        return maxFileSizeMB;
    // Of the level at this moment, so that the limit moves with it.
    return SizeLimitOfLevel(GetLogger() ? GetLogger()->GetLevel() : LOG_LEVEL_INFO);
}

std::string FileWriter::BuildFileName(uint32_t index) const
{
    std::string log = filename;
    if (log.empty() && GetLogger())
        log = GetLogger()->LogToken();
    if (log.empty())
        log = "default";
    std::string which = "*";
    if (index != 0) {
        const bool keepsAll = maxRollingFiles == 0;
        const bool detailed = GetLogger() && GetLogger()->GetLevel() > LOG_LEVEL_INFO;
        which = StringUtils::Format("%d", static_cast<int>(platform::CurrentProcessId()));
        if (index > 1 || keepsAll || detailed)
            which += StringUtils::Format("(%0*d)", keepsAll ? 4 : 1, static_cast<int>(index));
    }
    return StringUtils::Format("orvane-%s-%s.log", log.c_str(), which.c_str());
}

// ---- Opening and closing ----

bool FileWriter::OpenSink()
{
    std::string path;
    {
        OVMutexLock held(LoggerMutex());
        if (folderPath.empty() && !DefaultLogFolder(folderPath))
            return false;
        ++fileIndex;
        currentFileName = BuildFileName(fileIndex);
        path = currentFilePath = StringUtils::JoinPath(folderPath, currentFileName);
    }
    const bool existed = platform::PathExists(path);
    if (!existed && platform::CreateEmptyFile(path) != 0)
        return false;
    const RCPtr<FileUtils::OVFile> opened = new FileUtils::OVFile(path);
    if (!opened->Open("a"))
        return false;
    if (existed)
        opened->Write(kSessionBanner);
    OVMutexLock held(LoggerMutex());
    file = opened;
    StartDeletion();
    return true;
}

void FileWriter::StartDeletion()
{
    // A writer that rolls while it closes must not bring the poll thread back.
    if (maxDaysKept != 0 && !IsClosing() && !pollDeleteOldFiles->GetPollThread())
        LoggerManager::Instance().GetPollThread()->AddItem(pollDeleteOldFiles, nullptr, 0);
}

bool FileWriter::CloseSink()
{
    if (IsClosing())
        pollDeleteOldFiles->Remove(true); // else this is a roll, which leaves it running
    RCPtr<FileUtils::OVFile> closed;
    {
        OVMutexLock held(LoggerMutex());
        closed = std::move(file);
    }
    return true;
}

// ---- Writing ----

bool FileWriter::IsSuppressed(const LogMessage &message)
{
    return diskSuspended && message.Level() >= LOG_LEVEL_WARN;
}

bool FileWriter::WriteMessage(const LogMessage &message)
{
    return IsOpen() && file && !IsSuppressed(message) && file->Write(message.TextToWrite());
}

void FileWriter::EndWrite()
{
    if (IsFull())
        Roll();
    else if (file)
        file->Flush();
    CheckDisk();
}

bool FileWriter::IsFull() const
{
    const uint64_t limit = SizeLimitMB() * kMegabyte;
    int64_t size = 0;
    return limit != 0 && file && file->GetSize(&size) && static_cast<uint64_t>(size) >= limit;
}

void FileWriter::Roll()
{
    CloseSink();
    OpenSink(); // when it fails there is no file from now on
    OVMutexLock held(LoggerMutex());
    const uint32_t kept = maxRollingFiles;
    const uint32_t oldest = fileIndex - kept;
    // The first file of a process stays: it alone says what machine and version the log is of.
    if (kept != 0 && kept < fileIndex && oldest != 1)
        platform::RemoveFile(StringUtils::JoinPath(folderPath, BuildFileName(oldest)));
}

// ---- A disk that fills ----

void FileWriter::CheckDisk()
{
    std::string folder;
    {
        OVMutexLock held(LoggerMutex());
        folder = folderPath;
    }
    uint64_t freeBytes = 0;
    if (!platform::FreeSpaceOfFolder(folder, freeBytes))
        return;
    if (diskSuspended) {
        CheckSuspended(freeBytes);
        return;
    }
    lowThresholdLowered = false;
    if (freeBytes <= diskThresholdLowMB * kMegabyte) {
        diskSuspended = true;
        ReportSuspended(freeBytes);
    }
}

void FileWriter::CheckSuspended(uint64_t freeBytes)
{
    const uint64_t low = diskThresholdLowMB;
    const uint64_t resume = std::max<uint64_t>(low + kResumeMarginMB, diskThresholdHighMB);
    const bool resumed =
        freeBytes >= resume * kMegabyte || (lowThresholdLowered && freeBytes >= low * kMegabyte);
    lowThresholdLowered = false;
    if (!resumed)
        return;
    diskSuspended = false;
    ReportResumed(freeBytes);
}

void FileWriter::ReportSuspended(uint64_t freeBytes)
{
    suspendTimer.Elapsed(OVTimer::kRestart);
    WriteReport("\n" + ReportPrefix() +
                StringUtils::Format("%s Free disk space is %s - Logging suspended %s\n", kReportMark,
                                    StringUtils::FormatByteSize(static_cast<double>(freeBytes), 1).c_str(),
                                    kReportMark));
}

void FileWriter::ReportResumed(uint64_t freeBytes)
{
    WriteReport(ReportPrefix() +
                StringUtils::Format("%s Free disk space is %s - Logging resumed after %s %s\n\n", kReportMark,
                                    StringUtils::FormatByteSize(static_cast<double>(freeBytes), 1).c_str(),
                                    StringUtils::FormatDuration(suspendTimer.ElapsedSeconds(), 3).c_str(),
                                    kReportMark));
}

std::string FileWriter::ReportPrefix()
{
    constexpr int kLevelAndName = 5; // "A *: "
    char prefix[1024];
    OVMutexLock held(LoggerMutex());
    const int length = FormatPrefix(prefix, sizeof(prefix), "*", LOG_LEVEL_ALWAYS);
    return std::string(prefix, static_cast<size_t>(std::max(length - kLevelAndName, 0)));
}

void FileWriter::WriteReport(const std::string &text)
{
    // Past the queue, which may be long.
    if (const RCPtr<LogMessage> message = LogMessage::Create(LOG_LEVEL_ALWAYS, text.data(), text.size()))
        WriteMessage(*message);
}

} // namespace fodr
