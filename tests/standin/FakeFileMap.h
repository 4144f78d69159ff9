#pragma once
// A file map for the native stand-in tests (FileMapPlatform.h): each view is a copy of the file
// read into memory. A test can make the next view fail by an exception, as a fault while the
// system reads a mapped file would surface in a reader.

namespace fake_files {

void ThrowAtNextView();

}  // namespace fake_files
