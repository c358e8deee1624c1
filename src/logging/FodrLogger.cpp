#include "logging/FodrLogger.h"

#include "logging/LoggerManager.h"
#include "platform/Process.h"

namespace fodr {

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
