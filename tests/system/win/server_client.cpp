// A client of the server driven by the system tests through files in its working directory.
//
//   server_client
//
// It carries out cmd-1.txt, cmd-2.txt, ... in turn, each as soon as it appears, and answers in
// ack-N.txt (written whole, then renamed into place). A command file holds the command on its
// first line and its arguments one per line after it:
//   window               make a hidden top-level window of our own; answers its handle (hex)
//   send FLAGS NAME...   a request from our window (0 before "window") with FLAGS (hex)
//   sendas HANDLE FLAGS NAME...
//                        a request that names HANDLE (hex) as its client
//   front                show our window and bring it to the front; answers 1 when it is
//   destroy              destroy our window
//   find                 the server's window handle (hex), 0 when there is none
//   close                send WM_CLOSE to the server; answers 1 when there was one
//   quit                 end
// A send answers 1 when the server took the request (it returns once the server has carried it
// out: a stop only after the stopped sound has played out). Between commands the window's
// messages are handled.

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "client/QuorbelClient.h"

namespace {

HWND g_hWnd = nullptr;

bool ReadCommand(int n, std::vector<std::string>* lines) {
    char name[32];
    snprintf(name, sizeof name, "cmd-%d.txt", n);
    FILE* fp = fopen(name, "rb");
    if (fp == nullptr) return false;
    std::string text;
    char chunk[4096];
    size_t got;
    while ((got = fread(chunk, 1, sizeof chunk, fp)) > 0) text.append(chunk, got);
    fclose(fp);
    lines->clear();
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        if (end == std::string::npos) end = text.size();
        lines->push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return !lines->empty();
}

void WriteAck(int n, const std::string& answer) {
    char tmp[32], name[32];
    snprintf(tmp, sizeof tmp, "ack-%d.tmp", n);
    snprintf(name, sizeof name, "ack-%d.txt", n);
    FILE* fp = fopen(tmp, "wb");
    if (fp == nullptr) return;
    fputs(answer.c_str(), fp);
    fclose(fp);
    MoveFileExA(tmp, name, MOVEFILE_REPLACE_EXISTING);
}

std::string Hex(uint32_t v) {
    char text[16];
    snprintf(text, sizeof text, "0x%08X", v);
    return text;
}

void Pump() {
    MSG msg;
    while (PeekMessageA(&msg, nullptr, 0, 0, PM_REMOVE)) {
        TranslateMessage(&msg);
        DispatchMessageA(&msg);
    }
}

std::string Send(LONG client, const std::vector<std::string>& lines, size_t first) {
    if (lines.size() <= first) return "0";
    unsigned flags = static_cast<unsigned>(strtoul(lines[first].c_str(), nullptr, 16));
    CQuorbelClient::CRequestBlock block(client);
    for (size_t i = first + 1; i < lines.size(); ++i) {
        if (!block.AddName(lines[i].c_str())) return "0";
    }
    // Long enough for a stop of many plays, which drain one after another.
    return CQuorbelClient::SendBlock(CQuorbelClient::FindServer(), block, flags, 120000) ? "1" : "0";
}

std::string Carry(const std::vector<std::string>& lines) {
    const std::string& command = lines[0];
    if (command == "window") {
        if (g_hWnd == nullptr) {
            WNDCLASSA wc = {};
            wc.lpfnWndProc = DefWindowProcA;
            wc.hInstance = GetModuleHandleA(nullptr);
            wc.lpszClassName = "ServerSystemClient";
            RegisterClassA(&wc);
            g_hWnd = CreateWindowExA(0, wc.lpszClassName, "server system client", WS_OVERLAPPEDWINDOW,
                                     10, 10, 200, 100, nullptr, nullptr, wc.hInstance, nullptr);
        }
        return Hex(static_cast<uint32_t>(HandleToLong(g_hWnd)));
    }
    if (command == "send") return Send(HandleToLong(g_hWnd), lines, 1);
    if (command == "sendas" && lines.size() > 1) {
        LONG client = static_cast<LONG>(strtoul(lines[1].c_str(), nullptr, 16));
        return Send(client, lines, 2);
    }
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
    return "unknown";
}

}  // namespace

int main() {
    DWORD lastCommand = GetTickCount();
    for (int n = 1;; ++n) {
        std::vector<std::string> lines;
        while (!ReadCommand(n, &lines)) {
            MsgWaitForMultipleObjects(0, nullptr, FALSE, 10, QS_ALLINPUT);
            Pump();
            // A test that died must not leave this helper behind for ever.
            if (GetTickCount() - lastCommand > 600000) return 3;
        }
        lastCommand = GetTickCount();
        if (lines[0] == "quit") {
            WriteAck(n, "1");
            break;
        }
        WriteAck(n, Carry(lines));
    }
    if (g_hWnd != nullptr) DestroyWindow(g_hWnd);
    return 0;
}
