#include "logging/LoggerManager.h"

#include "platform/Process.h"

#include <atomic>
#include <utility>

namespace fodr {

namespace {

// Counts the log calls that run. Changed under LoggerMutex, so that above 1 it means a call from inside the
// log path; such a call is dropped.
constinit std::atomic<int32_t> logDepth{0};

class LogPath {
public:
    LogPath() : outermost(++logDepth < 2) {}
    ~LogPath() { --logDepth; }
    LogPath(const LogPath &) = delete;
    LogPath &operator=(const LogPath &) = delete;

    Logger *Admit(const RCPtr<Logger> &logger) const { return outermost ? logger.Get() : nullptr; }

private:
    const bool outermost;
};

} // namespace

// The default logger can't go while its lock is held, so no call takes a reference of its own.
const LogReceiver LoggerManager::kReceiver = {
    [](const char *functionName, int32_t level, const char *format, va_list arguments) {
        OVMutexLock lock(LoggerMutex());
        const LogPath path;
        if (Logger *logger = path.Admit(Instance().defaultLogger))
            logger->Log(functionName, level, format, arguments);
    },
    [](const char *functionName, int32_t level, const void *data, size_t length) {
        OVMutexLock lock(LoggerMutex());
        const LogPath path;
        if (Logger *logger = path.Admit(Instance().defaultLogger))
            logger->LogHex(functionName, level, data, length);
    },
    [](uint32_t errorCode, const char *functionName, int32_t level, const char *format, va_list arguments) {
        OVMutexLock lock(LoggerMutex());
        const LogPath path;
        if (Logger *logger = path.Admit(Instance().defaultLogger))
            logger->LogError(errorCode, functionName, level, format, arguments);
    },
};

LoggerManager &LoggerManager::Instance()
{
    static LoggerManager &manager = *new LoggerManager; // outlives whatever logs while statics go
    return manager;
}

LoggerManager::LoggerManager() : pollThread(new OVPollThread("Logger"))
{
    pollThread->SetLock(&LoggerMutex());
    SetLogReceiver(&kReceiver);
}

RCPtr<Logger> LoggerManager::CreateLogger(const std::string &name, const std::string &logToken,
                                          bool makeDefault)
{
    OVMutexLock lock(LoggerMutex());
    if (name.empty() || loggers.contains(name))
        return nullptr;
    RCPtr<Logger> logger = new Logger(name, logToken);
    loggers[name] = logger;
    if (makeDefault)
        SetDefaultLogger(logger);
    return logger;
}

RCPtr<Logger> LoggerManager::FindLogger(const std::string &name)
{
    OVMutexLock lock(LoggerMutex());
    const auto found = loggers.find(name);
    return found == loggers.end() ? nullptr : found->second;
}

RCPtr<Logger> LoggerManager::GetDefaultLogger()
{
    OVMutexLock lock(LoggerMutex());
    return defaultLogger;
}

void LoggerManager::SetDefaultLogger(const RCPtr<Logger> &logger)
{
    OVMutexLock lock(LoggerMutex());
    defaultLogger = logger;
    gLogLevel = logger && logger->IsStarted() ? logger->GetLevel() : LOG_LEVEL_ALWAYS;
}

void LoggerManager::LevelChanged(const Logger &logger)
{
    if (defaultLogger.Get() == &logger && logger.IsStarted())
        gLogLevel = logger.GetLevel();
}

RCPtr<OVPollThread> LoggerManager::GetPollThread()
{
    OVMutexLock lock(LoggerMutex());
    // A file that rolls while the loggers are being stopped must not bring the thread back.
    if (!shuttingDown && !pollThread->IsRunning())
        pollThread->StartScheduler();
    return pollThread;
}

void LoggerManager::Shutdown()
{
    {
        OVMutexLock lock(LoggerMutex());
        shuttingDown = true;
    }
    pollThread->StopScheduler();
    pollThread->RemoveAllItems(true);
    std::map<std::string, RCPtr<Logger>> stopped;
    {
        OVMutexLock lock(LoggerMutex());
        stopped.swap(loggers);
        defaultLogger = nullptr;
        gLogLevel = LOG_LEVEL_ALWAYS;
    }
    for (const auto &[name, logger] : stopped)
        logger->Stop();
    OVMutexLock lock(LoggerMutex());
    shuttingDown = false;
}

void LogWriteTo(RCPtr<Logger> logger, const char *functionName, int32_t level, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    {
        OVMutexLock lock(LoggerMutex());
        const LogPath path;
        if (Logger *target = path.Admit(logger))
            target->Log(functionName, level, format, arguments);
    }
    va_end(arguments);
}

namespace {

constexpr const char *kSettingsKey = "Software\\Orvane, Inc.\\Orvane ODPService\\Plugins\\fodr";
constexpr uint32_t kQueueSize = 500000;

} // namespace

FodrLogger::~FodrLogger()
{
    Stop();
}

void FodrLogger::Start(const char *logToken)
{
    const RCPtr<Logger> created = LoggerManager::Instance().CreateLogger(name, logToken, true);
    if (!created)
        return platform::DebugOutput("Failed to create logger for Lumen Fodr");
    logger = created;
    if (!logger->AddRegistryReader(kSettingsKey, platform::RegistryRoot::LocalMachine))
        return platform::DebugOutput("Failed to set add registry reader for Lumen Fodr");
    if (!logger->SetLevel(LOG_LEVEL_INFO))
        return platform::DebugOutput("Failed to set log level for Lumen Fodr");
    const RCPtr<LogWriter> file = logger->CreateWriter(LOG_WRITER_FILE);
    if (!file)
        return platform::DebugOutput("Failed to initialize logger for Lumen Fodr");
    if (!file->SetQueueSize(kQueueSize))
        platform::DebugOutput("Failed to set log queue size for Lumen Fodr");
    if (!logger->Start())
        return platform::DebugOutput("Failed to start the FolderRedirection-Client Logger");
    LogWrite("FodrLogger::Start()", LOG_LEVEL_ALWAYS, "Log level is set to %s\n", logger->GetLevelName());
}

void FodrLogger::Stop()
{
    if (!logger)
        return;
    LoggerManager::Instance().Shutdown();
    logger = nullptr;
}

int32_t FodrLogger::Level() const
{
    return logger ? logger->GetLevel() : LOG_LEVEL_ALWAYS;
}

} // namespace fodr
