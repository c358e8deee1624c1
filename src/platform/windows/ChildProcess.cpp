#include "platform/ChildProcess.h"

#include "platform/SystemError.h"
#include "platform/windows/HandleStream.h"
#include "platform/windows/Win32.h"

#include <algorithm>
#include <map>
#include <thread>

namespace fodr::platform {

namespace {

struct LessWithoutCase {
    bool operator()(const std::wstring &a, const std::wstring &b) const
    {
        return CompareStringOrdinal(a.c_str(), static_cast<int>(a.size()), b.c_str(),
                                    static_cast<int>(b.size()), TRUE) == CSTR_LESS_THAN;
    }
};

// Backslashes only count before a quote, where each needs another one.
void AppendQuoted(const std::wstring &word, std::wstring *line)
{
    if (!word.empty() && word.find_first_of(L" \t\n\v\"") == std::wstring::npos) {
        *line += word;
        return;
    }
    size_t backslashes = 0;
    line->push_back(L'"');
    for (const wchar_t c : word) {
        if (c == L'\\') {
            ++backslashes;
        } else {
            if (c == L'"')
                line->append(backslashes + 1, L'\\');
            backslashes = 0;
        }
        line->push_back(c);
    }
    line->append(backslashes, L'\\');
    line->push_back(L'"');
}

// One text that the C library of the other side takes apart into these words again. False when one isn't
// text.
bool JoinArguments(const std::vector<std::string> &arguments, std::wstring *line)
{
    line->clear();
    for (const std::string &argument : arguments) {
        std::wstring word;
        if (!Widen(argument, word))
            return false;
        if (!line->empty())
            line->push_back(L' ');
        AppendQuoted(word, line);
    }
    return true;
}

// Our environment with the additions on top, as a block for CreateProcessW.
bool MakeEnvironment(const std::vector<std::pair<std::string, std::string>> &additions, std::wstring *block)
{
    std::map<std::wstring, std::wstring, LessWithoutCase> values; // in the order that a block has to have
    wchar_t *own = GetEnvironmentStringsW();
    for (const wchar_t *entry = own; entry && *entry; entry += std::wstring_view(entry).size() + 1) {
        const std::wstring_view text(entry);
        const size_t equals = text.find(L'=', 1); // names of current folders begin with one
        if (equals != std::wstring_view::npos)
            values[std::wstring(text.substr(0, equals))] = text.substr(equals + 1);
    }
    FreeEnvironmentStringsW(own);
    for (const auto &[name, value] : additions) {
        std::wstring wideName;
        std::wstring wideValue;
        if (!Widen(name, wideName) || !Widen(value, wideValue))
            return false;
        values[wideName] = wideValue;
    }
    block->clear();
    for (const auto &[name, value] : values)
        *block += name + L'=' + value + L'\0';
    block->push_back(L'\0');
    return true;
}

constexpr size_t kMaxLine = 4000;
constexpr UINT kKilled = 137; // the status of what is killed here, and the number that a shell would show

// Reads lines until everybody has closed the pipe, or until it is stopped.
class LineReader {
public:
    LineReader(std::unique_ptr<ByteStream> readEnd, std::function<void(const std::string &)> handler)
        : pipe(std::move(readEnd)), onLine(std::move(handler)), thread([this] { Main(); })
    {}
    ~LineReader()
    {
        stopping = true;
        thread.join();
    }

private:
    void Main()
    {
        constexpr int kLookAgainMS = 100; // for the end of a child whose children live on
        std::string line;
        std::byte buffer[1024];
        for (;;) {
            const bool last = stopping;
            const ptrdiff_t got = pipe->Read(buffer, last ? 0 : kLookAgainMS);
            if (got == ByteStream::kTimedOut && !last)
                continue;
            if (got <= 0)
                break;
            for (const std::byte c : std::span(buffer).first(static_cast<size_t>(got)))
                Take(static_cast<char>(c), &line);
        }
        if (!line.empty())
            onLine(line);
    }

    void Take(char c, std::string *line)
    {
        if (c != '\n')
            line->push_back(c);
        if (c != '\n' && line->size() < kMaxLine)
            return;
        if (line->ends_with('\r'))
            line->pop_back();
        onLine(*line);
        line->clear();
    }

    const std::unique_ptr<ByteStream> pipe;
    const std::function<void(const std::string &)> onLine;
    std::atomic<bool> stopping{false};
    std::thread thread;
};

class Win32Child final : public ChildProcess {
public:
    Win32Child(PROCESS_INFORMATION info, OwnedHandle ownJob, std::unique_ptr<ByteStream> connected,
               std::unique_ptr<LineReader> errorReader)
        : process(info.hProcess), id(info.dwProcessId), job(std::move(ownJob)), stream(std::move(connected)),
          errors(std::move(errorReader))
    {}
    ~Win32Child() override
    {
        Kill();
        WaitForSingleObject(process.Get(), INFINITE);
        errors.reset();
    }

    std::unique_ptr<ByteStream> TakeStream() override { return std::move(stream); }
    int Id() const override { return static_cast<int>(id); }

    std::optional<Exit> Wait(int timeoutMS) override
    {
        DWORD code = 0;
        const DWORD limit = timeoutMS < 0 ? INFINITE : static_cast<DWORD>(timeoutMS);
        if (WaitForSingleObject(process.Get(), limit) != WAIT_OBJECT_0 ||
            !GetExitCodeProcess(process.Get(), &code))
            return std::nullopt;
        if (code == kKilled && killed)
            return Exit{true, static_cast<int>(kKilled) - 128};
        return Exit{false, static_cast<int>(code)};
    }

    // A program of the console is asked by a break; there is nothing to ask another one by.
    void Terminate() override
    {
        if (!job || !GenerateConsoleCtrlEvent(CTRL_BREAK_EVENT, id))
            Kill();
    }
    void Kill() override
    {
        if (WaitForSingleObject(process.Get(), 0) == WAIT_OBJECT_0)
            return;
        killed = true;
        if (!job || !TerminateJobObject(job.Get(), kKilled))
            TerminateProcess(process.Get(), kKilled);
    }

private:
    const OwnedHandle process;
    const DWORD id;
    const OwnedHandle job; // of a group of its own
    std::unique_ptr<ByteStream> stream;
    std::unique_ptr<LineReader> errors;
    std::atomic<bool> killed{false};
};

// The handles that the child inherits, and no others.
class InheritedHandles {
public:
    ~InheritedHandles()
    {
        if (list)
            DeleteProcThreadAttributeList(list);
    }
    InheritedHandles() = default;
    InheritedHandles(const InheritedHandles &) = delete;
    InheritedHandles &operator=(const InheritedHandles &) = delete;

    void Add(HANDLE handle)
    {
        // Before Windows 8, a console's handle isn't the kernel's: the console hands it on by itself, and a
        // list that names it is refused. So is one that names a handle twice.
        const bool isConsoles = (reinterpret_cast<uintptr_t>(handle) & 3) == 3;
        if (std::find(handles.begin(), handles.end(), handle) != handles.end())
            return;
        SetHandleInformation(handle, HANDLE_FLAG_INHERIT, HANDLE_FLAG_INHERIT);
        if (!isConsoles)
            handles.push_back(handle);
    }
    bool Empty() const { return handles.empty(); }
    // Null, with a last error, when it can't be made.
    LPPROC_THREAD_ATTRIBUTE_LIST List()
    {
        SIZE_T size = 0;
        InitializeProcThreadAttributeList(nullptr, 1, 0, &size);
        storage.resize(size);
        auto *made = reinterpret_cast<LPPROC_THREAD_ATTRIBUTE_LIST>(storage.data());
        if (!InitializeProcThreadAttributeList(made, 1, 0, &size))
            return nullptr;
        list = made;
        return UpdateProcThreadAttribute(list, 0, PROC_THREAD_ATTRIBUTE_HANDLE_LIST, handles.data(),
                                         handles.size() * sizeof(HANDLE), nullptr, nullptr)
                   ? list
                   : nullptr;
    }

private:
    std::vector<HANDLE> handles;
    std::vector<std::byte> storage;
    LPPROC_THREAD_ATTRIBUTE_LIST list = nullptr;
};

// Our ends and the child's. The child's go when it has been started.
struct ChildPipes {
    OwnedHandle inputOurs, inputTheirs, outputOurs, outputTheirs, errorOurs, errorTheirs;

    bool Make(const ChildOptions &options)
    {
        return (!options.withStream || (MakePipe(PipeUse::WeWrite, true, &inputOurs, &inputTheirs) &&
                                        MakePipe(PipeUse::WeRead, true, &outputOurs, &outputTheirs))) &&
               (!options.onErrorLine || MakePipe(PipeUse::WeRead, true, &errorOurs, &errorTheirs));
    }
    std::unique_ptr<ByteStream> TakeStream()
    {
        if (!inputOurs)
            return nullptr;
        return std::make_unique<HandleStream>(MakePipeEnd(std::move(outputOurs), false),
                                              MakePipeEnd(std::move(inputOurs), false));
    }
    std::unique_ptr<LineReader> ReadLines(const std::function<void(const std::string &)> &onLine)
    {
        if (!errorOurs)
            return nullptr;
        return std::make_unique<LineReader>(
            std::make_unique<HandleStream>(MakePipeEnd(std::move(errorOurs), false), nullptr), onLine);
    }
};

// Looked for in PATH alone: what lies in the current folder isn't meant.
std::wstring FindProgram(const std::string &name)
{
    std::wstring wide;
    std::wstring found(32768, L'\0');
    if (!Widen(name, wide) || wide.find_first_of(L"\\/") != std::wstring::npos)
        return wide;
    std::wstring folders(GetEnvironmentVariableW(L"PATH", nullptr, 0), L'\0');
    GetEnvironmentVariableW(L"PATH", folders.data(), static_cast<DWORD>(folders.size()));
    const DWORD length = SearchPathW(folders.c_str(), wide.c_str(), L".exe", static_cast<DWORD>(found.size()),
                                     found.data(), nullptr);
    found.resize(length);
    return length != 0 ? found : wide;
}

OwnedHandle MakeJob()
{
    OwnedHandle job(CreateJobObjectW(nullptr, nullptr));
    JOBOBJECT_EXTENDED_LIMIT_INFORMATION limits{};
    limits.BasicLimitInformation.LimitFlags = JOB_OBJECT_LIMIT_KILL_ON_JOB_CLOSE;
    if (job)
        SetInformationJobObject(job.Get(), JobObjectExtendedLimitInformation, &limits, sizeof(limits));
    return job;
}

} // namespace

std::unique_ptr<ChildProcess> ChildProcess::Start(const ChildOptions &options, std::string *error)
{
    ChildPipes pipes;
    std::wstring line;
    std::wstring environment;
    if (options.arguments.empty() || !JoinArguments(options.arguments, &line) ||
        !MakeEnvironment(options.environment, &environment))
        return FailWith(error, ERROR_INVALID_PARAMETER);
    if (!pipes.Make(options))
        return FailWith(error, GetLastError());

    STARTUPINFOEXW start{};
    InheritedHandles inherited;
    bool givesAny = false;
    start.StartupInfo.cb = sizeof(start);
    start.StartupInfo.dwFlags = STARTF_USESTDHANDLES;
    const auto give = [&inherited, &givesAny](const OwnedHandle &pipe, DWORD standard) {
        const HANDLE handle = pipe ? pipe.Get() : GetStdHandle(standard);
        if (handle && handle != INVALID_HANDLE_VALUE) {
            inherited.Add(handle);
            givesAny = true;
        }
        return handle;
    };
    start.StartupInfo.hStdInput = give(pipes.inputTheirs, STD_INPUT_HANDLE);
    start.StartupInfo.hStdOutput = give(pipes.outputTheirs, STD_OUTPUT_HANDLE);
    start.StartupInfo.hStdError = give(pipes.errorTheirs, STD_ERROR_HANDLE);
    if (!inherited.Empty() && !(start.lpAttributeList = inherited.List()))
        return FailWith(error, GetLastError()); // without, it would inherit what isn't meant for it

    const bool ownGroup =
        options.interrupts != ChildOptions::Interrupts::Shared; // a group starts deaf to Ctrl-C
    OwnedHandle job = options.interrupts == ChildOptions::Interrupts::Own ? MakeJob() : OwnedHandle();
    PROCESS_INFORMATION info{};
    const std::wstring program = FindProgram(options.arguments.front());
    if (!CreateProcessW(program.c_str(), line.data(), nullptr, nullptr, givesAny,
                        CREATE_UNICODE_ENVIRONMENT | CREATE_SUSPENDED |
                            (start.lpAttributeList ? EXTENDED_STARTUPINFO_PRESENT : 0) |
                            (ownGroup ? CREATE_NEW_PROCESS_GROUP : 0),
                        environment.data(), nullptr, &start.StartupInfo, &info))
        return FailWith(error, GetLastError());
    if (job && !AssignProcessToJobObject(job.Get(), info.hProcess))
        job.Reset(); // its children then are its own business
    ResumeThread(info.hThread);
    CloseHandle(info.hThread);
    return std::make_unique<Win32Child>(info, std::move(job), pipes.TakeStream(),
                                        pipes.ReadLines(options.onErrorLine));
}

} // namespace fodr::platform
