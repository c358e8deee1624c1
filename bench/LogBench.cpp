// What a log call costs the thread that makes it, and how fast lines get into the file; beside spdlog's
// asynchronous logger with the same line, in the same run.
#include "logging/LoggerManager.h"
#include "runtime/LogCall.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <optional>
#include <spdlog/async.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <string>

namespace fodr {
namespace {

constexpr int64_t kBurst = 50000;           // calls of one thread, so few that no queue is ever full
constexpr uint32_t kQueueSize = 1000000;    // ours
constexpr size_t kOtherQueueSize = 1 << 18; // spdlog's, which has its room set aside from the start

class LogFolder {
public:
    LogFolder()
    {
        std::string pattern = std::filesystem::temp_directory_path() / "fodr-log-bench-XXXXXX";
        folder = mkdtemp(pattern.data());
    }
    ~LogFolder() { std::filesystem::remove_all(folder); }
    const std::string &Path() const { return folder; }

private:
    std::string folder;
};

class OurLog {
public:
    OurLog()
    {
        logger = LoggerManager::Instance().CreateLogger("bench", "bench", true);
        const RCPtr<LogWriter> file = logger->CreateWriter(LOG_WRITER_FILE);
        file->SetValue("folderPath", folder.Path());
        file->SetValue("maxFileSizeMB", "0");
        file->SetQueueSize(kQueueSize);
        logger->Start();
    }
    ~OurLog() { LoggerManager::Instance().Shutdown(); } // writes all

    static void Line(int64_t number) { LOG_INFO("request %ld of share %s, %d bytes", number, "docs", 4096); }

private:
    LogFolder folder;
    RCPtr<Logger> logger;
};

class Spdlog {
public:
    Spdlog()
    {
        spdlog::init_thread_pool(kOtherQueueSize, 1);
        logger = spdlog::basic_logger_mt<spdlog::async_factory>("bench", folder.Path() + "/bench.log");
        logger->set_pattern("%Y-%m-%d %H:%M:%S.%e <%t> [%P] %L Spdlog::Line(): %v");
        current = logger.get();
    }
    ~Spdlog()
    {
        logger.reset();
        spdlog::shutdown(); // writes all
    }

    static void Line(int64_t number)
    {
        current->info("request {} of share {}, {} bytes", number, "docs", 4096);
    }

private:
    static inline spdlog::logger *current = nullptr;

    LogFolder folder;
    std::shared_ptr<spdlog::logger> logger;
};

void DisabledCall(benchmark::State &state)
{
    int64_t number = 0;
    for (auto _ : state) {
        benchmark::DoNotOptimize(++number);
        LOG_DEBUG("request %ld of share %s, %d bytes", number, "docs", 4096);
    }
}
BENCHMARK(DisabledCall);

// The calls alone; what they queued is written when the time is taken already.
template <typename Log> void EnabledCall(benchmark::State &state)
{
    static std::optional<Log> running;
    if (state.thread_index() == 0)
        running.emplace();
    int64_t number = 0;
    for (auto _ : state)
        Log::Line(++number);
    if (state.thread_index() == 0)
        running.reset();
}
BENCHMARK(EnabledCall<OurLog>)->Iterations(kBurst)->Threads(1)->Threads(4)->UseRealTime();
BENCHMARK(EnabledCall<Spdlog>)->Iterations(kBurst)->Threads(1)->Threads(4)->UseRealTime();

// From the first call until the last line is in the file.
template <typename Log> void UntilWritten(benchmark::State &state)
{
    for (auto _ : state) {
        Log log;
        for (int64_t number = 0; number < kBurst; ++number)
            Log::Line(number);
    }
    state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(UntilWritten<OurLog>)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(UntilWritten<Spdlog>)->UseRealTime()->Unit(benchmark::kMillisecond);

} // namespace
} // namespace fodr
