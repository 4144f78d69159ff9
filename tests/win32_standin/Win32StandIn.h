#pragma once
// The test side of the native Win32 stand-in (windows.h here): the window table, the
// foreground window, failures of thread starts, and what the frame asked of its window.

#include <windows.h>

#include <vector>

namespace win32_standin {

// Window table: a known window exists (IsWindow) and is owned by pid (0: a window without a
// process, for which GetWindowThreadProcessId writes 0).
void SetWindowProcess(HWND window, DWORD pid);
void RemoveWindow(HWND window);
void ClearWindows();
inline HWND WindowOf(LONG handle) { return static_cast<HWND>(LongToHandle(handle)); }

// The window GetForegroundWindow returns; null for none.
void SetForeground(HWND window);

// The next count CreateThread calls fail (return null, start nothing).
void FailThreadStarts(int count);
// Thread and mutex handles made and not closed yet.
long OpenHandles();

// Calls of SetTimer, KillTimer and SendMessageA, in order.
struct WindowCall {
    enum Kind { kSetTimer, kKillTimer, kSendMessage };
    Kind kind;
    HWND window;
    UINT_PTR id;    // timer id, or the message
    UINT value;     // period in ms; 0 otherwise
};
std::vector<WindowCall> TakeWindowCalls();

}  // namespace win32_standin
