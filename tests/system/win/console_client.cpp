// A client of the server for the system tests: one command a line on standard input until its end,
// fields separated by tabs, one answer line each (windows as 0x%08X); a send answers 1 once done.
//   window / front / find     make our window / bring it to the front (1 if so) / find the server
//   send FLAGS NAME...        a request (FLAGS in hex) from our window, or as client 0 before it
//   raw DWDATA HEX            a block of exactly these bytes with this dwData (hex)
//   wait MS / close           handle our messages for MS ms / post WM_CLOSE to the server
//   handles                   "pid P event T types TYPE:N ...": the server's handles by type
//   replace FROM TO / truncate FILE   move, replacing / cut to nothing: "done" or "refused STEP CODE"
// Standard input is read on a thread of its own: the main thread, which carries the commands out,
// handles the window's messages between them, so a busy client has a live window.

#include <windows.h>

#include <cstdio>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "client/QuorbelClient.h"

namespace {

const UINT WM_COMMAND_READY = WM_APP + 1;
const DWORD kSendTimeoutMs = 120000;  // a stop of many plays drains them one after another

HWND g_hWnd = nullptr;
const DWORD g_mainThread = GetCurrentThreadId();  // set before main, on the main thread

DWORD WINAPI ReadInput(LPVOID) {
    std::string line;
    while (std::getline(std::cin, line)) {
        PostThreadMessageA(g_mainThread, WM_COMMAND_READY, 0,
                           reinterpret_cast<LPARAM>(new std::string(line)));
    }
    PostThreadMessageA(g_mainThread, WM_COMMAND_READY, 0, 0);  // the end
    return 0;
}

std::string Hex(uint32_t v) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", v);
    return text;
}

// Our commands wait in the queue: they are carried out one by one, after this.
void PumpFor(DWORD ms) {
    const DWORD start = GetTickCount();
    do {
        MsgWaitForMultipleObjects(0, nullptr, FALSE, 20, QS_ALLINPUT);
        MSG msg;
        while (PeekMessageA(&msg, nullptr, 0, WM_COMMAND_READY - 1, PM_REMOVE))
            DispatchMessageA(&msg);
    } while (GetTickCount() - start < ms);
}

// The system's handle list (SystemHandleInformation), read without importing ntdll: under Wine
// another process's handle count is answered with 0, so the list is the only count there is.
struct HandleList {
    ULONG count;
    struct {
        ULONG ownerPid;
        BYTE objectType, flags;
        USHORT value;
        PVOID object;
        ULONG access;
    } entries[1];
};

std::string Handles(HWND server) {
    static std::vector<char> buffer(1 << 24);  // room for every handle of the session
    using Query = LONG(WINAPI*)(ULONG, PVOID, ULONG, PULONG);
    auto query = reinterpret_cast<Query>(reinterpret_cast<void*>(
        GetProcAddress(GetModuleHandleA("ntdll.dll"), "NtQuerySystemInformation")));
    DWORD pid = 0;
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);  // to learn the events' type
    const bool listed = GetWindowThreadProcessId(server, &pid) != 0 && query != nullptr &&
                        query(16, buffer.data(), static_cast<ULONG>(buffer.size()), nullptr) == 0;
    const HandleList* list = reinterpret_cast<const HandleList*>(buffer.data());
    std::map<int, int> byType;
    int eventType = -1;
    for (ULONG i = 0; listed && i < list->count; ++i) {
        const auto& e = list->entries[i];
        if (e.ownerPid == pid) ++byType[e.objectType];
        if (e.ownerPid == GetCurrentProcessId() && e.value == HandleToUlong(event))
            eventType = e.objectType;
    }
    CloseHandle(event);
    std::string text =
        "pid " + std::to_string(pid) + " event " + std::to_string(eventType) + " types";
    for (const auto& type : byType)
        text += " " + std::to_string(type.first) + ":" + std::to_string(type.second);
    return listed ? text : "none";
}

std::string Carry(const std::vector<std::string>& f) {
    const std::string& command = f[0];
    HWND server = CQuorbelClient::FindServer();
    if (command == "window" && g_hWnd == nullptr)
        g_hWnd = CreateWindowExA(0, "STATIC", "quorbel test client", WS_OVERLAPPEDWINDOW, 10, 10,
                                 200, 100, nullptr, nullptr, GetModuleHandleA(nullptr), nullptr);
    if (command == "window") return Hex(HandleToUlong(g_hWnd));
    if (command == "send" && f.size() > 1) {
        CQuorbelClient::CRequestBlock block(HandleToLong(g_hWnd));
        for (size_t i = 2; i < f.size(); ++i)
            if (!block.AddName(f[i].c_str())) return "0";
        const unsigned flags = static_cast<unsigned>(std::stoull(f[1], nullptr, 16));
        return CQuorbelClient::SendBlock(server, block, flags, kSendTimeoutMs) ? "1" : "0";
    }
    if (command == "raw" && f.size() > 2) {
        std::string bytes;
        for (size_t i = 0; i + 1 < f[2].size(); i += 2)
            bytes += char(std::stoull(f[2].substr(i, 2), nullptr, 16));
        // Never a null pointer, not even for an empty block.
        COPYDATASTRUCT cds = {static_cast<ULONG_PTR>(std::stoull(f[1], nullptr, 16)),
                              static_cast<DWORD>(bytes.size()), &bytes[0]};
        DWORD_PTR taken = 0;
        SendMessageTimeoutA(server, WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&cds), SMTO_NORMAL,
                            kSendTimeoutMs, &taken);
        return taken != 0 ? "1" : "0";
    }
    if (command == "front" && g_hWnd != nullptr) {
        ShowWindow(g_hWnd, SW_SHOW);
        SetForegroundWindow(g_hWnd);
        PumpFor(0);
        return GetForegroundWindow() == g_hWnd ? "1" : "0";
    }
    if (command == "wait" && f.size() > 1) {
        PumpFor(static_cast<DWORD>(std::stoul(f[1])));
        return "1";
    }
    if (command == "find") return Hex(HandleToUlong(server));
    // Posted: the server's close waits for its plays, and this client must go on answering.
    if (command == "close")
        return server != nullptr && PostMessageA(server, WM_CLOSE, 0, 0) ? "1" : "0";
    if (command == "handles") return Handles(server);
    if (command == "replace" && f.size() > 2) {
        const BOOL moved = MoveFileExA(f[1].c_str(), f[2].c_str(), MOVEFILE_REPLACE_EXISTING);
        return moved ? "done" : "refused MoveFileEx " + Hex(GetLastError());
    }
    if (command == "truncate" && f.size() > 1) {
        // Shared as widely as Windows allows: what is refused is refused because of another opener.
        HANDLE h = CreateFileA(f[1].c_str(), GENERIC_WRITE,
                               FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                               TRUNCATE_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
        if (h == INVALID_HANDLE_VALUE) return "refused CreateFile " + Hex(GetLastError());
        CloseHandle(h);
        return "done";
    }
    return "0";
}

}  // namespace

int main() {
    MSG msg;
    // The thread's queue exists before the reader posts.
    PeekMessageA(&msg, nullptr, 0, 0, PM_NOREMOVE);
    HANDLE reader = CreateThread(nullptr, 0, &ReadInput, nullptr, 0, nullptr);
    if (reader == nullptr) return 2;
    CloseHandle(reader);  // it ends with the process
    while (GetMessageA(&msg, nullptr, 0, 0) > 0) {
        if (msg.message != WM_COMMAND_READY) {
            DispatchMessageA(&msg);
            continue;
        }
        const std::string* line = reinterpret_cast<const std::string*>(msg.lParam);
        if (line == nullptr) break;          // our window goes with the process
        std::vector<std::string> fields(1);  // split at each tab, empty fields kept
        for (char c : *line) c == '\t' ? fields.emplace_back() : fields.back() += c;
        delete line;
        std::printf("%s\n", Carry(fields).c_str());
        std::fflush(stdout);
    }
    return 0;
}
