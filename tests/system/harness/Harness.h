#pragma once
// The C++ host side that the load test and bench/measure_server use: they run natively on Linux
// and drive the Windows programs of the cross build under Wine, inside the private session of
// scripts/wine-session. (The system tests themselves are pytest, beside this folder.)
//
// Environment (scripts/test sets it; by hand: `. build/session/env` after
// `scripts/wine-session start`, then export QUORBEL_WIN_BUILD_DIR):
//   QUORBEL_WIN_BUILD_DIR   the Windows build directory (build/windows); its programs are found
//                           by name anywhere under it, see FindWindowsExe
//   QUORBEL_SESSION_DIR     the session directory (written by the session's env file)
//   DISPLAY, PULSE_SERVER, WINEPREFIX, WINEDEBUG
//                           the session's display, sound server and Wine prefix; every process
//                           spawned here inherits them
//   QUORBEL_SYSTEM_WORK_DIR optional: where MakeWorkDir makes fresh directories (default: the
//                           test's working directory, "work/")
//
// Every tests/system/win/NAME.cpp becomes NAME.exe in the Windows build, linked with
// quorbel_win, as a helper program.
//
// The pieces:
//   Session.h    the environment above, finding programs, fresh working directories, waiting
//   Process.h    CProcess: spawn a program (a Windows one through wine), wait for it or kill it
//   Recorder.h   CRecorder: record the session's sink with parec to a raw file
//   Pcm.h        seeded noise, raw and WAV files, finding material in a recording, block
//                comparison of 44.1 kHz stereo, correlation for other formats
//   ServerLog.h  reading the server's log

#include "tests/system/harness/Pcm.h"
#include "tests/system/harness/Process.h"
#include "tests/system/harness/Recorder.h"
#include "tests/system/harness/ServerLog.h"
#include "tests/system/harness/Session.h"
