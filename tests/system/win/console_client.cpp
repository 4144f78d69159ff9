// A client of the server for the system tests, driven over standard input and output: one
// command per line, fields separated by tabs, one answer line per command, flushed at once.
//
//   window                        make a hidden top-level window; answers its handle (0x%08X)
//   send FLAGS NAME...            a request from our window (0 before "window"), FLAGS in hex
//   sendas HANDLE FLAGS NAME...   a request that names HANDLE (hex) as its client
//   raw DWDATA HEX [CBDATA]       a block of the given bytes with the given dwData (hex) and
//                                 cbData (default: the block's length); "null" sends no block
//   front                         show our window and bring it to the front; 1 when it is
//   destroy                       destroy our window
//   find                          the server's window handle, 0x00000000 when there is none
//   close                         post WM_CLOSE to the server; 1 when there was one
//   quit                          end (so does the end of the input)
//
// A send answers 1 when the server took the request; it returns once the server has carried it
// out, so a stop answers only after the stopped sound has played out. Standard input is read on
// a thread of its own and the commands are carried out on the main thread, which handles the
// window's messages between them.

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <deque>
#include <string>
#include <vector>

#include "client/QuorbelClient.h"

namespace {

const UINT WM_COMMAND_READY = WM_APP + 1;
// Long enough for a stop of many plays, which drain one after another.
const DWORD kSendTimeoutMs = 120000;

CRITICAL_SECTION g_lock;
std::deque<std::string> g_lines;  // under g_lock
DWORD g_mainThread = 0;
HWND g_hWnd = nullptr;

void Queue(const std::string& line) {
    EnterCriticalSection(&g_lock);
    g_lines.push_back(line);
    LeaveCriticalSection(&g_lock);
    PostThreadMessageA(g_mainThread, WM_COMMAND_READY, 0, 0);
}

DWORD WINAPI ReadInput(LPVOID) {
    std::string line;
    for (int c = std::getchar(); c != EOF; c = std::getchar()) {
        if (c == '\n') {
            Queue(line);
            line.clear();
        } else if (c != '\r') {
            line.push_back(static_cast<char>(c));
        }
    }
    if (!line.empty()) Queue(line);
    Queue("quit");
    return 0;
}

std::vector<std::string> Fields(const std::string& line) {
    std::vector<std::string> fields;
    size_t start = 0;
    for (;;) {
        size_t tab = line.find('\t', start);
        fields.push_back(line.substr(start, tab == std::string::npos ? std::string::npos : tab - start));
        if (tab == std::string::npos) return fields;
        start = tab + 1;
    }
}

std::string Hex(uint32_t v) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", v);
    return text;
}

unsigned long long FromHex(const std::string& text) { return std::strtoull(text.c_str(), nullptr, 16); }

std::string Send(LONG client, const std::vector<std::string>& fields, size_t first) {
    if (fields.size() <= first) return "0";
    CQuorbelClient::CRequestBlock block(client);
    for (size_t i = first + 1; i < fields.size(); ++i) {
        if (!block.AddName(fields[i].c_str())) return "0";
    }
    unsigned flags = static_cast<unsigned>(FromHex(fields[first]));
    return CQuorbelClient::SendBlock(CQuorbelClient::FindServer(), block, flags, kSendTimeoutMs) ? "1" : "0";
}

// A block exactly as given, for requests no well-behaved client makes.
std::string SendRaw(const std::vector<std::string>& fields) {
    if (fields.size() < 3) return "0";
    std::string bytes;
    const std::string& hex = fields[2];
    for (size_t i = 0; i + 1 < hex.size(); i += 2) {
        bytes.push_back(static_cast<char>(std::strtoul(hex.substr(i, 2).c_str(), nullptr, 16)));
    }
    COPYDATASTRUCT cds;
    cds.dwData = static_cast<ULONG_PTR>(FromHex(fields[1]));
    cds.cbData = fields.size() > 3 ? static_cast<DWORD>(std::strtoul(fields[3].c_str(), nullptr, 10))
                                   : static_cast<DWORD>(bytes.size());
    cds.lpData = hex == "null" ? nullptr : const_cast<char*>(bytes.data());
    DWORD_PTR result = 0;
    LRESULT sent = SendMessageTimeoutA(CQuorbelClient::FindServer(), WM_COPYDATA, 0,
                                       reinterpret_cast<LPARAM>(&cds), SMTO_NORMAL, kSendTimeoutMs, &result);
    return sent != 0 && result != 0 ? "1" : "0";
}

void Pump() {
    MSG msg;
    while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
        TranslateMessage(&msg);
        DispatchMessageA(&msg);
    }
}

std::string Carry(const std::vector<std::string>& fields) {
    const std::string& command = fields[0];
    if (command == "window") {
        if (g_hWnd == nullptr) {
            WNDCLASSA wc = {};
            wc.lpfnWndProc = DefWindowProcA;
            wc.hInstance = GetModuleHandleA(nullptr);
            wc.lpszClassName = "QuorbelTestClient";
            RegisterClassA(&wc);
            g_hWnd = CreateWindowExA(0, wc.lpszClassName, "quorbel test client", WS_OVERLAPPEDWINDOW, 10,
                                     10, 200, 100, nullptr, nullptr, wc.hInstance, nullptr);
        }
        return Hex(static_cast<uint32_t>(HandleToLong(g_hWnd)));
    }
    if (command == "send") return Send(HandleToLong(g_hWnd), fields, 1);
    if (command == "sendas" && fields.size() > 1) {
        return Send(static_cast<LONG>(FromHex(fields[1])), fields, 2);
    }
    if (command == "raw") return SendRaw(fields);
    if (command == "front") {
        if (g_hWnd == nullptr) return "0";
        ShowWindow(g_hWnd, SW_SHOW);
        SetForegroundWindow(g_hWnd);
        Pump();
        return GetForegroundWindow() == g_hWnd ? "1" : "0";
    }
    if (command == "destroy") {
        if (g_hWnd != nullptr) DestroyWindow(g_hWnd);
        g_hWnd = nullptr;
        return "1";
    }
    if (command == "find") return Hex(static_cast<uint32_t>(HandleToLong(CQuorbelClient::FindServer())));
    if (command == "close") {
        HWND server = CQuorbelClient::FindServer();
        if (server == nullptr) return "0";
        // Posted: the server's close waits for its plays, and this helper must go on answering.
        PostMessageA(server, WM_CLOSE, 0, 0);
        return "1";
    }
    return "unknown command";
}

}  // namespace

int main() {
    InitializeCriticalSection(&g_lock);
    g_mainThread = GetCurrentThreadId();
    MSG msg;
    PeekMessageA(&msg, nullptr, 0, 0, PM_NOREMOVE);  // the thread's queue exists before the reader posts
    HANDLE reader = CreateThread(nullptr, 0, &ReadInput, nullptr, 0, nullptr);
    if (reader == nullptr) return 2;
    CloseHandle(reader);
    for (;;) {
        if (GetMessageA(&msg, nullptr, 0, 0) <= 0) break;
        if (msg.message != WM_COMMAND_READY) {
            TranslateMessage(&msg);
            DispatchMessageA(&msg);
            continue;
        }
        for (;;) {
            EnterCriticalSection(&g_lock);
            if (g_lines.empty()) {
                LeaveCriticalSection(&g_lock);
                break;
            }
            std::string line = g_lines.front();
            g_lines.pop_front();
            LeaveCriticalSection(&g_lock);
            std::vector<std::string> fields = Fields(line);
            if (fields[0] == "quit") {
                std::printf("1\n");
                std::fflush(stdout);
                if (g_hWnd != nullptr) DestroyWindow(g_hWnd);
                return 0;
            }
            std::printf("%s\n", Carry(fields).c_str());
            std::fflush(stdout);
        }
    }
    return 0;
}
