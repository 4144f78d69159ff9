#pragma once
// A native stand-in for the few Win32 calls that the play list (player/pub/SoundFilePlayer.cpp)
// and the request intake (app/MainFrame.cpp) make, so that those units can be compiled
// unchanged on Linux and run under ThreadSanitizer, AddressSanitizer and libFuzzer. mingw and
// Wine have no sanitizers, and these two units hold the server's thread and bounds rules.
//
// Only what those units and the headers they include use is declared here, with Windows'
// widths (LONG and DWORD are 32 bits, handles and *_PTR types pointer-sized). What it models:
//   - threads: CreateThread starts a detached std::thread at once; the handle is a small heap
//     object that CloseHandle frees; tests can make the next starts fail;
//   - CRITICAL_SECTION: a recursive pthread mutex; CreateMutexA/WaitForSingleObject/ReleaseMutex:
//     an unnamed recursive mutex owned by the thread that holds it;
//   - windows: a test-controlled table of window handle -> owning process id, read by
//     GetWindowThreadProcessId (output untouched for an unknown window) and IsWindow; a
//     test-controlled foreground window;
//   - timers and SendMessageA: recorded, never delivered (there is no message loop);
//   - Sleep and GetTickCount over the steady clock.
// The test-side controls are in Win32StandIn.h.

#include <pthread.h>

#include <cstddef>
#include <cstdint>

#define WINAPI
#define CALLBACK

typedef int BOOL;
#define TRUE 1
#define FALSE 0

typedef unsigned char BYTE;
typedef int32_t LONG;
typedef uint32_t ULONG;
typedef uint32_t DWORD;
typedef unsigned int UINT;
typedef intptr_t LONG_PTR;
typedef uintptr_t ULONG_PTR;
typedef uintptr_t UINT_PTR;
typedef uintptr_t DWORD_PTR;
typedef size_t SIZE_T;
typedef DWORD* LPDWORD;
typedef DWORD_PTR* PDWORD_PTR;
typedef void* PVOID;
typedef void* LPVOID;
typedef char* LPSTR;
typedef const char* LPCSTR;

typedef UINT_PTR WPARAM;
typedef LONG_PTR LPARAM;
typedef LONG_PTR LRESULT;

typedef void* HANDLE;
struct HWND__;
typedef HWND__* HWND;
struct HMENU__;
typedef HMENU__* HMENU;
struct HINSTANCE__;
typedef HINSTANCE__* HINSTANCE;
struct HICON__;
typedef HICON__* HICON;
typedef HICON HCURSOR;
struct HBRUSH__;
typedef HBRUSH__* HBRUSH;

#define MAX_PATH 260
#define INFINITE 0xFFFFFFFFu
#define WAIT_OBJECT_0 0u
#define WAIT_FAILED 0xFFFFFFFFu

#define WM_CREATE 0x0001u
#define WM_CLOSE 0x0010u
#define WM_COPYDATA 0x004Au
#define WM_TIMER 0x0113u
#define WS_EX_CLIENTEDGE 0x00000200L
#define SMTO_NORMAL 0x0000u

inline HANDLE LongToHandle(LONG h) { return reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(h)); }
inline LONG HandleToLong(const void* h) { return static_cast<LONG>(reinterpret_cast<LONG_PTR>(h)); }

typedef struct _SECURITY_ATTRIBUTES* LPSECURITY_ATTRIBUTES;
typedef DWORD(WINAPI* LPTHREAD_START_ROUTINE)(LPVOID);

struct COPYDATASTRUCT {
    ULONG_PTR dwData;
    DWORD cbData;
    PVOID lpData;
};
typedef COPYDATASTRUCT* PCOPYDATASTRUCT;

struct CREATESTRUCTA {
    LPVOID lpCreateParams;
    HINSTANCE hInstance;
    HMENU hMenu;
    HWND hwndParent;
    int cy;
    int cx;
    int y;
    int x;
    LONG style;
    LPCSTR lpszName;
    LPCSTR lpszClass;
    DWORD dwExStyle;
};
typedef CREATESTRUCTA* LPCREATESTRUCTA;

struct CRITICAL_SECTION {
    pthread_mutex_t mutex;
};
typedef CRITICAL_SECTION* LPCRITICAL_SECTION;

void InitializeCriticalSection(LPCRITICAL_SECTION cs);
void DeleteCriticalSection(LPCRITICAL_SECTION cs);
void EnterCriticalSection(LPCRITICAL_SECTION cs);
void LeaveCriticalSection(LPCRITICAL_SECTION cs);

HANDLE CreateThread(LPSECURITY_ATTRIBUTES attributes, SIZE_T stackSize,
                    LPTHREAD_START_ROUTINE start, LPVOID parameter, DWORD creationFlags,
                    LPDWORD threadId);
BOOL CloseHandle(HANDLE handle);
HANDLE CreateMutexA(LPSECURITY_ATTRIBUTES attributes, BOOL initialOwner, LPCSTR name);
DWORD WaitForSingleObject(HANDLE handle, DWORD milliseconds);
BOOL ReleaseMutex(HANDLE mutex);

void Sleep(DWORD milliseconds);
DWORD GetTickCount();

HANDLE GetCurrentProcess();
BOOL TerminateProcess(HANDLE process, UINT exitCode);

DWORD GetWindowThreadProcessId(HWND window, LPDWORD processId);
BOOL IsWindow(HWND window);
HWND GetForegroundWindow();

typedef void(CALLBACK* TIMERPROC)(HWND, UINT, UINT_PTR, DWORD);
UINT_PTR SetTimer(HWND window, UINT_PTR id, UINT elapseMs, TIMERPROC proc);
BOOL KillTimer(HWND window, UINT_PTR id);
LRESULT SendMessageA(HWND window, UINT message, WPARAM wParam, LPARAM lParam);

// Used only by inline code of client/QuorbelClient.h that these tests never call. They are
// declared for it and deliberately not defined: a call would fail to link.
typedef BOOL(CALLBACK* WNDENUMPROC)(HWND, LPARAM);
BOOL EnumWindows(WNDENUMPROC proc, LPARAM lParam);
LRESULT SendMessageTimeoutA(HWND window, UINT message, WPARAM wParam, LPARAM lParam, UINT flags,
                            UINT timeoutMs, PDWORD_PTR result);
int GetWindowTextA(HWND window, LPSTR text, int maxCount);
DWORD GetFullPathNameA(LPCSTR name, DWORD bufferLength, LPSTR buffer, LPSTR* filePart);
