// The entry point of quorbel.exe, alone in its unit so that everything else of app/ builds into
// the Windows tests too.

#include <windows.h>

#include <stdlib.h>

#include "app/QuorbelApp.h"

// The process's one application object.
CQuorbelApp theApp;

int WINAPI WinMain(HINSTANCE hInstance, HINSTANCE, LPSTR, int) {
    // A failed check must not open a modal box that hangs a hidden server holding the mutex.
    _set_error_mode(_OUT_TO_STDERR);
    theApp.m_hInstance = hInstance;
    int exitCode = theApp.InitInstance() ? theApp.Run() : theApp.ExitInstance();
    // Play threads may still be logging; ending here skips the destruction of static objects
    // under them. The log is written through, so nothing is lost.
    ExitProcess(static_cast<UINT>(exitCode));
}
