// A client of the server for the system tests: one command a line on standard input, fields
// separated by tabs, one answer line each. A send answers 1 once the server has carried it out.
//   window / front / find         make our hidden window / bring it to the front (1 if so) / the
//                                 server's window (handles as 0x%08X)
//   send FLAGS NAME...            a request from our window (0 before "window"), FLAGS in hex
//   sendas HANDLE FLAGS NAME...   a request that names HANDLE (hex) as its client
//   raw DWDATA HEX                a block of exactly these bytes with this dwData (hex)
//   wait MS / close / quit        handle our messages for MS ms / post WM_CLOSE to the server / end
//   handles                       "pid P event T types TYPE:N ...": the server's handles by type
//   replace SOURCE TARGET         MoveFileEx(..., MOVEFILE_REPLACE_EXISTING); and cutting a FILE
//   truncate FILE                 to nothing as a Windows program would: "done" or "refused STEP CODE"
// Standard input is read on a thread of its own: the main thread, which carries the commands out,
// handles the window's messages between them, so a busy client has a live window.

#include <windows.h>

#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "client/QuorbelClient.h"

namespace {

const UINT WM_COMMAND_READY = WM_APP + 1;
const DWORD kSendTimeoutMs = 120000;  // a stop of many plays drains them one after another

DWORD g_mainThread = 0;
HWND g_hWnd = nullptr;

DWORD WINAPI ReadInput(LPVOID) {
    std::string line;
    while (std::getline(std::cin, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        PostThreadMessageA(g_mainThread, WM_COMMAND_READY, 0,
                           reinterpret_cast<LPARAM>(new std::string(line)));
    }
    PostThreadMessageA(g_mainThread, WM_COMMAND_READY, 0,
                       reinterpret_cast<LPARAM>(new std::string("quit")));
    return 0;
}

std::string Hex(uint32_t v) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", v);
    return text;
}

unsigned long long FromHex(const std::string& text) {
    return std::strtoull(text.c_str(), nullptr, 16);
}

std::string Refused(const char* step) {
    return "refused " + std::string(step) + " " + Hex(GetLastError());
}

std::string SendCopyData(ULONG_PTR dwData, const void* data, DWORD size) {
    COPYDATASTRUCT cds = {dwData, size, const_cast<void*>(data)};
    DWORD_PTR taken = 0;
    SendMessageTimeoutA(CQuorbelClient::FindServer(), WM_COPYDATA, 0,
                        reinterpret_cast<LPARAM>(&cds), SMTO_NORMAL, kSendTimeoutMs, &taken);
    return taken != 0 ? "1" : "0";
}

std::string Send(LONG client, const std::vector<std::string>& fields, size_t first) {
    CQuorbelClient::CRequestBlock block(client);
    for (size_t i = first + 1; i < fields.size(); ++i) {
        if (!block.AddName(fields[i].c_str())) return "0";
    }
    return SendCopyData(
        CQuorbelClient::MakeDwData(block.Count(), static_cast<unsigned>(FromHex(fields[first]))),
        block.Data(), block.Size());
}

// Our commands wait in the queue: they are carried out one by one, after this.
void PumpFor(DWORD ms) {
    const DWORD start = GetTickCount();
    do {
        MsgWaitForMultipleObjects(0, nullptr, FALSE, 20, QS_ALLINPUT);
        MSG msg;
        while (PeekMessageA(&msg, nullptr, 0, WM_COMMAND_READY - 1, PM_REMOVE)) {
            DispatchMessageA(&msg);
        }
    } while (GetTickCount() - start < ms);
}

// The system's handle list (SystemHandleInformation), read without importing ntdll: under Wine
// another process's handle count is answered with 0, so the list is the only count there is.
struct HandleEntry {
    ULONG ownerPid;
    BYTE objectType, flags;
    USHORT value;
    PVOID object;
    ULONG access;
};
struct HandleList {
    ULONG count;
    HandleEntry entries[1];
};

std::string Handles() {
    DWORD pid = 0;
    using Query = LONG(WINAPI*)(ULONG, PVOID, ULONG, PULONG);
    auto query = reinterpret_cast<Query>(reinterpret_cast<void*>(
        GetProcAddress(GetModuleHandleA("ntdll.dll"), "NtQuerySystemInformation")));
    if (GetWindowThreadProcessId(CQuorbelClient::FindServer(), &pid) == 0 || query == nullptr)
        return "none";
    HANDLE event = CreateEventA(nullptr, FALSE, FALSE, nullptr);  // to learn the events' type
    std::vector<char> buffer(1 << 16);
    LONG status;
    while ((status = query(16, buffer.data(), static_cast<ULONG>(buffer.size()), nullptr)) ==
               static_cast<LONG>(0xC0000004) &&
           buffer.size() < (1u << 28)) {
        buffer.resize(buffer.size() * 2);  // the list grew: again with more room
    }
    const HandleList* list = reinterpret_cast<const HandleList*>(buffer.data());
    const size_t room = (buffer.size() - offsetof(HandleList, entries)) / sizeof(HandleEntry);
    std::map<int, int> byType;
    int eventType = -1;
    for (ULONG i = 0; status == 0 && i < list->count && i < room; ++i) {
        const HandleEntry& e = list->entries[i];
        if (e.ownerPid == pid) ++byType[e.objectType];
        if (e.ownerPid == GetCurrentProcessId() && e.value == HandleToUlong(event))
            eventType = e.objectType;
    }
    CloseHandle(event);
    std::string text =
        "pid " + std::to_string(pid) + " event " + std::to_string(eventType) + " types";
    for (const auto& type : byType)
        text += " " + std::to_string(type.first) + ":" + std::to_string(type.second);
    return status == 0 ? text : "none";
}

// Shared as widely as Windows allows: whatever is refused is refused because of another opener.
std::string Truncate(const std::string& file) {
    HANDLE h = CreateFileA(file.c_str(), GENERIC_WRITE,
                           FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                           OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    if (h == INVALID_HANDLE_VALUE) return Refused("CreateFile");
    const std::string answer = SetEndOfFile(h) ? "done" : Refused("SetEndOfFile");
    CloseHandle(h);
    return answer;
}

std::string Carry(const std::vector<std::string>& f) {
    const std::string& command = f[0];
    if (command == "window" && g_hWnd == nullptr) {
        g_hWnd = CreateWindowExA(0, "STATIC", "quorbel test client", WS_OVERLAPPEDWINDOW, 10, 10,
                                 200, 100, nullptr, nullptr, GetModuleHandleA(nullptr), nullptr);
    }
    if (command == "window") return Hex(HandleToUlong(g_hWnd));
    if (command == "send" && f.size() > 1) return Send(HandleToLong(g_hWnd), f, 1);
    if (command == "sendas" && f.size() > 2) return Send(static_cast<LONG>(FromHex(f[1])), f, 2);
    if (command == "raw" && f.size() > 2) {
        std::string bytes;
        for (size_t i = 0; i + 1 < f[2].size(); i += 2) bytes += char(FromHex(f[2].substr(i, 2)));
        // Never a null pointer, not even for an empty block.
        return SendCopyData(static_cast<ULONG_PTR>(FromHex(f[1])), bytes.data(),
                            static_cast<DWORD>(bytes.size()));
    }
    if (command == "front" && g_hWnd != nullptr) {
        ShowWindow(g_hWnd, SW_SHOW);
        SetForegroundWindow(g_hWnd);
        PumpFor(0);
        return GetForegroundWindow() == g_hWnd ? "1" : "0";
    }
    if (command == "wait" && f.size() > 1) {
        PumpFor(static_cast<DWORD>(std::strtoul(f[1].c_str(), nullptr, 10)));
        return "1";
    }
    HWND server = CQuorbelClient::FindServer();
    if (command == "find") return Hex(HandleToUlong(server));
    // Posted: the server's close waits for its plays, and this client must go on answering.
    if (command == "close")
        return server != nullptr && PostMessageA(server, WM_CLOSE, 0, 0) ? "1" : "0";
    if (command == "handles") return Handles();
    if (command == "replace" && f.size() > 2) {
        const BOOL moved = MoveFileExA(f[1].c_str(), f[2].c_str(), MOVEFILE_REPLACE_EXISTING);
        return moved ? "done" : Refused("MoveFileEx");
    }
    if (command == "truncate" && f.size() > 1) return Truncate(f[1]);
    return "0";
}

}  // namespace

int main() {
    g_mainThread = GetCurrentThreadId();
    MSG msg;
    // The thread's queue exists before the reader posts.
    PeekMessageA(&msg, nullptr, 0, 0, PM_NOREMOVE);
    HANDLE reader = CreateThread(nullptr, 0, &ReadInput, nullptr, 0, nullptr);
    if (reader == nullptr) return 2;
    CloseHandle(reader);
    while (GetMessageA(&msg, nullptr, 0, 0) > 0) {
        if (msg.message != WM_COMMAND_READY) {
            DispatchMessageA(&msg);
            continue;
        }
        const std::string* line = reinterpret_cast<const std::string*>(msg.lParam);
        std::vector<std::string> fields;
        std::istringstream in(*line);
        for (std::string field; std::getline(in, field, '\t');) fields.push_back(field);
        if (line->empty() || line->back() == '\t') fields.push_back("");  // the last field, empty
        delete line;
        if (fields[0] == "quit") break;  // our window goes with the process
        std::printf("%s\n", Carry(fields).c_str());
        std::fflush(stdout);
    }
    std::printf("1\n");
    return 0;
}
