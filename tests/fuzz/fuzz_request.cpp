// Fuzz target of the request intake: the real app/MainFrame.cpp (OnCopyData and
// DispatchRequest), built natively over the Win32 stand-in, whose player registry records every
// call that reaches it.
//
// Input: bytes 0-7 dwData (little-endian), byte 8 the delivery (bit 0: lpData is null; bits 1-7:
// cbData is that many bytes short of the block, the rest of the block being poisoned for
// AddressSanitizer, as a sender's buffer beyond what it declared), byte 9 the foreground process
// (0: no foreground window), then the data block. The block is copied into a heap block of its
// own size, so that any read past it is reported. Missing header bytes count as 0.
//
// Each input is delivered to a fresh frame through its message map (WM_COPYDATA), then again
// through OnCopyData, then handed to DispatchRequest with the block's end, then sent with
// another client handle. Checked each time:
//   - the registry calls are exactly those of an independent reading of the request format
//     (client/QuorbelClient.h) made here;
//   - and, without that reading: data too short for the client handle gives no call; a stop of
//     the client gives one StopClient and nothing else; otherwise every call is of the kind the
//     flags choose, with the client of the first four bytes, the loop flag and the foreground
//     (0 under REQ_IGNORE_FOREGROUND); at most count names act, each a NUL-ended string shorter
//     than 260 bytes lying wholly inside cbData, in increasing block order;
//   - the client is listed once, only when it is not 0, a second client after it, and the sweep
//     timer is started once;
//   - the frame leaves no handle open once destroyed.

#include <sanitizer/asan_interface.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "app/MainFrame.h"
#include "client/QuorbelClient.h"
#include "player/pub/PlayerRegistry.h"
#include "tests/win32_standin/Win32StandIn.h"

namespace {

typedef CPlayerRegistry::Call Call;

void Check(bool condition, const char* what) {
    if (condition) return;
    fprintf(stderr, "fuzz_request: %s\n", what);
    abort();
}

// Opens the frame's protected handlers to the target.
class CFuzzFrame : public CMainFrame {
public:
    using CMainFrame::DispatchRequest;
    using CMainFrame::OnCopyData;
    using CMainFrame::OnCreate;
    CWndHandleArray& Clients() { return m_clients; }
    std::vector<Call>& Calls() { return m_players.calls; }
    DWORD ForegroundPid() const { return m_dwForegroundPid; }
};

struct Request {
    uint64_t dwData = 0;
    bool nullData = false;
    uint32_t cut = 0;
    uint8_t foreground = 0;
    std::vector<uint8_t> block;
};

Request Decode(const uint8_t* data, size_t size) {
    Request r;
    uint8_t header[10] = {};
    memcpy(header, data, size < sizeof header ? size : sizeof header);
    for (int i = 7; i >= 0; --i) r.dwData = (r.dwData << 8) | header[i];
    r.nullData = (header[8] & 1) != 0;
    r.cut = header[8] >> 1;
    r.foreground = header[9];
    if (size > sizeof header) r.block.assign(data + sizeof header, data + size);
    return r;
}

// The request format read byte by byte, as a client would describe it: four bytes of client
// handle, then up to count names, each ended by a NUL; a name of 260 bytes or more is passed
// over, a name whose NUL is missing ends the request.
std::vector<Call> Expected(const uint8_t* block, uint32_t cbData, bool present, uint64_t dwData,
                           DWORD foregroundPid) {
    std::vector<Call> calls;
    if (!present || cbData < 4) return calls;
    const uint32_t client = static_cast<uint32_t>(block[0]) | static_cast<uint32_t>(block[1]) << 8 |
                            static_cast<uint32_t>(block[2]) << 16 |
                            static_cast<uint32_t>(block[3]) << 24;
    const LONG hClient = static_cast<LONG>(client);
    const unsigned count = static_cast<unsigned>(dwData % 256);
    const unsigned flags = static_cast<unsigned>((dwData / 65536) % 65536);
    if (flags & REQ_STOP_CLIENT) {
        calls.push_back({Call::kStopClient, hClient, std::string(), 0, 0});
        return calls;
    }
    uint32_t at = 4;
    for (unsigned n = 0; n < count; ++n) {
        uint32_t end = at;
        while (end < cbData && block[end] != 0) ++end;
        if (end >= cbData) break;
        const uint32_t length = end - at;
        if (length < 260) {
            std::string name(reinterpret_cast<const char*>(block) + at, length);
            if (!(flags & REQ_STOP)) {
                calls.push_back({Call::kPlay, hClient, name, (flags & REQ_LOOP) ? 1u : 0u,
                                 (flags & REQ_IGNORE_FOREGROUND) ? 0u : foregroundPid});
            } else if (flags & REQ_STOP_OTHERS) {
                calls.push_back({Call::kStopOtherFiles, hClient, name, 0, 0});
            } else {
                calls.push_back({Call::kStopFile, hClient, name, 0, 0});
            }
        }
        at = end + 1;
    }
    return calls;
}

// The properties of the calls one request made, without the reading above.
void CheckProperties(const std::vector<Call>& calls, const uint8_t* block, uint32_t cbData,
                     bool present, uint64_t dwData, DWORD foregroundPid) {
    if (!present || cbData < 4) {
        Check(calls.empty(), "a block without a client handle acted");
        return;
    }
    LONG client;
    memcpy(&client, block, 4);  // x86 is little-endian, as the wire
    const UINT flags = static_cast<UINT>(dwData >> 16) & 0xFFFF;
    for (const Call& call : calls) Check(call.hClientWnd == client, "a call for another client");
    if (flags & REQ_STOP_CLIENT) {
        Check(calls.size() == 1 && calls[0].kind == Call::kStopClient,
              "a stop of the client is not one StopClient alone");
        return;
    }
    Check(calls.size() <= (dwData & 0xFF), "more names acted on than the count");
    const Call::Kind kind = !(flags & REQ_STOP) ? Call::kPlay
                            : (flags & REQ_STOP_OTHERS) ? Call::kStopOtherFiles
                                                        : Call::kStopFile;
    uint32_t cursor = 4;
    for (const Call& call : calls) {
        Check(call.kind == kind, "a call of a kind the flags do not choose");
        if (kind == Call::kPlay) {
            Check(call.bLoop == ((flags & REQ_LOOP) ? 1u : 0u), "loop flag not passed as given");
            Check(call.dwPid == ((flags & REQ_IGNORE_FOREGROUND) ? 0u : foregroundPid),
                  "foreground pid not passed as the flags say");
        }
        const size_t length = call.name.size();
        Check(length < 260, "a name of 260 bytes or more acted on");
        Check(memchr(call.name.data(), 0, length) == nullptr, "a name with a NUL inside");
        // The name and its NUL lie in the block after the previous one.
        bool found = false;
        for (uint32_t at = cursor; at + length < cbData; ++at) {
            if (memcmp(block + at, call.name.data(), length) == 0 && block[at + length] == 0) {
                cursor = at + static_cast<uint32_t>(length) + 1;
                found = true;
                break;
            }
        }
        Check(found, "a name that is not in the block after the previous one");
    }
}

void CheckCalls(const std::vector<Call>& calls, const std::vector<Call>& expected,
                const uint8_t* block, uint32_t cbData, bool present, uint64_t dwData,
                DWORD foregroundPid) {
    CheckProperties(calls, block, cbData, present, dwData, foregroundPid);
    Check(calls == expected, "the registry calls differ from the request's reading");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const Request request = Decode(data, size);
    const long handlesBefore = win32_standin::OpenHandles();

    // The foreground window, owned by a process of its own.
    const DWORD foregroundPid = request.foreground != 0 ? 1000u + request.foreground : 0u;
    const HWND foregroundWindow = win32_standin::WindowOf(0x7000 + request.foreground);
    win32_standin::ClearWindows();
    if (request.foreground != 0) win32_standin::SetWindowProcess(foregroundWindow, foregroundPid);
    win32_standin::SetForeground(request.foreground != 0 ? foregroundWindow : nullptr);
    win32_standin::TakeWindowCalls();

    CFuzzFrame* frame = new CFuzzFrame();
    CREATESTRUCTA create = {};
    Check(frame->Dispatch(WM_CREATE, 0, reinterpret_cast<LPARAM>(&create)) == 0, "creation failed");
    Check(frame->ForegroundPid() == foregroundPid, "the foreground process not taken at creation");
    std::vector<win32_standin::WindowCall> windowCalls = win32_standin::TakeWindowCalls();
    Check(windowCalls.size() == 1 && windowCalls[0].kind == win32_standin::WindowCall::kSetTimer &&
              windowCalls[0].id == CMainFrame::TIMER_FOREGROUND && windowCalls[0].value == 1000,
          "creation did not start the foreground timer alone");

    // The block in a heap block of its own size; what lies beyond cbData is poisoned.
    const uint32_t blockSize = static_cast<uint32_t>(request.block.size());
    const uint32_t cbData = request.cut < blockSize ? blockSize - request.cut : 0;
    uint8_t* block = static_cast<uint8_t*>(malloc(blockSize > 0 ? blockSize : 1));
    Check(block != nullptr, "out of memory");
    if (blockSize > 0) memcpy(block, request.block.data(), blockSize);
    ASAN_POISON_MEMORY_REGION(block + cbData, blockSize - cbData);

    COPYDATASTRUCT cds;
    cds.dwData = static_cast<ULONG_PTR>(request.dwData);
    cds.cbData = cbData;
    cds.lpData = request.nullData ? nullptr : block;
    const bool present = !request.nullData;
    const std::vector<Call> expected = Expected(block, cbData, present, request.dwData, foregroundPid);

    // 1. Through the message map, as the window procedure delivers it.
    Check(frame->Dispatch(WM_COPYDATA, 0, reinterpret_cast<LPARAM>(&cds)) == TRUE,
          "WM_COPYDATA did not return TRUE");
    CheckCalls(frame->Calls(), expected, block, cbData, present, request.dwData, foregroundPid);
    LONG client = 0;
    const bool valid = present && cbData >= 4;
    if (valid) memcpy(&client, block, 4);
    const bool listed = valid && client != 0;
    Check(frame->Clients().GetCount() == (listed ? 1 : 0), "client list wrong after one request");
    if (listed) Check(frame->Clients().GetAt(0) == client, "another client listed");
    windowCalls = win32_standin::TakeWindowCalls();
    Check(windowCalls.size() == (listed ? 1u : 0u), "sweep timer calls wrong after one request");
    if (listed) {
        Check(windowCalls[0].kind == win32_standin::WindowCall::kSetTimer &&
                  windowCalls[0].id == CMainFrame::TIMER_CLIENT_SWEEP && windowCalls[0].value == 2000,
              "not the sweep timer");
    }

    // 2. The same request again: the same calls, the client still listed once, no timer.
    frame->Calls().clear();
    Check(frame->OnCopyData(nullptr, &cds) == TRUE, "OnCopyData did not return TRUE");
    CheckCalls(frame->Calls(), expected, block, cbData, present, request.dwData, foregroundPid);
    Check(frame->Clients().GetCount() == (listed ? 1 : 0), "client listed twice");
    Check(win32_standin::TakeWindowCalls().empty(), "the sweep timer started twice");

    // 3. DispatchRequest with the block's end.
    if (valid) {
        frame->Calls().clear();
        const char* names = reinterpret_cast<const char*>(block) + 4;
        frame->DispatchRequest(client, names, reinterpret_cast<const char*>(block) + cbData,
                               static_cast<int>(request.dwData & 0xFF),
                               static_cast<UINT>(request.dwData >> 16) & 0xFFFF);
        CheckCalls(frame->Calls(), expected, block, cbData, present, request.dwData, foregroundPid);
    }
    // 4. The request from another client: listed after the first, the sweep timer not again.
    if (valid) {
        frame->Calls().clear();
        const LONG other = client != 0x7FFF0000 ? 0x7FFF0000 : 0x7FFF0001;
        memcpy(block, &other, 4);
        const std::vector<Call> expectedOther =
            Expected(block, cbData, present, request.dwData, foregroundPid);
        Check(frame->OnCopyData(nullptr, &cds) == TRUE, "OnCopyData did not return TRUE");
        CheckCalls(frame->Calls(), expectedOther, block, cbData, present, request.dwData, foregroundPid);
        const int clients = frame->Clients().GetCount();
        Check(clients == (listed ? 2 : 1), "client list wrong after a second client");
        Check(frame->Clients().GetAt(clients - 1) == other, "the second client not listed last");
        windowCalls = win32_standin::TakeWindowCalls();
        Check(windowCalls.size() == (listed ? 0u : 1u), "sweep timer calls wrong for a second client");
    }
    // A null request descriptor is no request.
    frame->Calls().clear();
    Check(frame->OnCopyData(nullptr, nullptr) == TRUE && frame->Calls().empty(),
          "a null descriptor acted");

    ASAN_UNPOISON_MEMORY_REGION(block + cbData, blockSize - cbData);
    free(block);
    delete frame;
    Check(win32_standin::OpenHandles() == handlesBefore, "the frame left a handle open");
    return 0;
}
