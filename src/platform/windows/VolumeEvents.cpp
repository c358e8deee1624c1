// A hidden top-level window hears the system's broadcast of devices that come and go. It isn't a message-only
// window: those get no broadcasts.
#include "platform/Volumes.h"
#include "platform/windows/Win32.h"

#include <dbt.h>

#include <atomic>
#include <cwchar>

namespace fodr::platform {

struct VolumeEvents::State {
    std::atomic<HWND> window{nullptr};
    std::atomic<DWORD> runner{0};     // the thread in Run, 0 for none
    IVolumeEventSink *sink = nullptr; // of that thread

    static LRESULT CALLBACK OnMessage(HWND window, UINT message, WPARAM wParam, LPARAM lParam);
    LRESULT OnDeviceChange(WPARAM wParam, LPARAM lParam) const;
};

namespace {

HINSTANCE OwnModule()
{
    HMODULE module = nullptr;
    GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                       reinterpret_cast<const wchar_t *>(&OwnModule), &module);
    return module;
}

// The window class of this module. A library that goes has to take its class along: the system would keep it,
// with a procedure that is gone.
class WindowClass {
public:
    explicit WindowClass(WNDPROC procedure)
    {
        std::swprintf(name, sizeof(name) / sizeof(name[0]), L"ATL:%p", static_cast<void *>(this));
        WNDCLASSEXW description{};
        description.cbSize = sizeof(description);
        description.lpfnWndProc = procedure;
        description.hInstance = OwnModule();
        description.lpszClassName = name;
        atom = RegisterClassExW(&description);
    }
    ~WindowClass()
    {
        if (atom != 0)
            UnregisterClassW(MAKEINTATOM(atom), OwnModule());
    }
    WindowClass(const WindowClass &) = delete;
    WindowClass &operator=(const WindowClass &) = delete;

    ATOM Atom() const { return atom; }

private:
    wchar_t name[32] = {};
    ATOM atom = 0; // 0: it couldn't be registered
};

} // namespace

LRESULT VolumeEvents::State::OnDeviceChange(WPARAM wParam, LPARAM lParam) const
{
    const auto *header = reinterpret_cast<const DEV_BROADCAST_HDR *>(lParam);
    if ((wParam != DBT_DEVICEARRIVAL && wParam != DBT_DEVICEREMOVECOMPLETE) || !header ||
        header->dbch_devicetype != DBT_DEVTYP_VOLUME || !sink)
        return 0;
    const DWORD mask = reinterpret_cast<const DEV_BROADCAST_VOLUME *>(lParam)->dbcv_unitmask;
    if (wParam == DBT_DEVICEARRIVAL)
        sink->OnVolumesArrived(mask);
    else
        sink->OnVolumesRemoved(mask);
    return 0;
}

LRESULT CALLBACK VolumeEvents::State::OnMessage(HWND window, UINT message, WPARAM wParam, LPARAM lParam)
{
    if (message == WM_NCCREATE)
        SetWindowLongPtrW(
            window, GWLP_USERDATA,
            reinterpret_cast<LONG_PTR>(reinterpret_cast<const CREATESTRUCTW *>(lParam)->lpCreateParams));
    auto *state = reinterpret_cast<State *>(GetWindowLongPtrW(window, GWLP_USERDATA));
    if (!state)
        return DefWindowProcW(window, message, wParam, lParam);
    switch (message) {
    case WM_CLOSE:
        if (state->sink)
            state->sink->OnClose();
        state->sink = nullptr;
        DestroyWindow(window);
        return 0;
    case WM_DESTROY:
        state->window = nullptr;
        PostQuitMessage(0);
        return 0;
    case WM_DEVICECHANGE:
        return state->OnDeviceChange(wParam, lParam);
    default:
        return DefWindowProcW(window, message, wParam, lParam);
    }
}

VolumeEvents::VolumeEvents() : state(std::make_unique<State>()) {}

VolumeEvents::~VolumeEvents() = default;

bool VolumeEvents::Open()
{
    static const WindowClass windowClass(State::OnMessage);
    state->window =
        windowClass.Atom() == 0
            ? nullptr
            : CreateWindowExW(0, MAKEINTATOM(windowClass.Atom()), nullptr, 0, CW_USEDEFAULT, CW_USEDEFAULT,
                              CW_USEDEFAULT, CW_USEDEFAULT, nullptr, nullptr, OwnModule(), state.get());
    return state->window != nullptr;
}

bool VolumeEvents::IsOpen() const
{
    return IsWindow(state->window);
}

bool VolumeEvents::Run(IVolumeEventSink &sink)
{
    MSG message;
    state->sink =
        &sink; // first: what was sent since Open is handled by the next call that looks for messages
    PeekMessageW(&message, nullptr, WM_USER, WM_USER, PM_NOREMOVE); // makes the thread's queue
    state->runner = GetCurrentThreadId();
    BOOL result;
    while ((result = GetMessageW(&message, nullptr, 0, 0)) != 0 && result != -1)
        DispatchMessageW(&message);
    state->runner = 0;
    if (state->sink && result == 0) // ended without a window
        sink.OnClose();
    state->sink = nullptr;
    return result == 0;
}

void VolumeEvents::RequestEnd()
{
    if (const HWND window = state->window)
        SendMessageW(window, WM_CLOSE, 0, 0);
    else if (const DWORD runner = state->runner)
        PostThreadMessageW(runner, WM_QUIT, 0, 0);
}

} // namespace fodr::platform
