// The main frame's window: hidden, no client edge, a class of style 0.

#include <gtest/gtest.h>

#include "app/MainFrame.h"

namespace {

TEST(MainFrameWindow, HiddenWithoutClientEdgeOnAClassOfStyleZero) {
    CMainFrame* frame = new CMainFrame;
    RECT rect = {0, 0, 0, 0};
    ASSERT_TRUE(frame->Create(nullptr, "server frame under test", WS_CLIPCHILDREN, rect));
    HWND hFrame = frame->GetSafeHwnd();
    EXPECT_FALSE(IsWindowVisible(hFrame));
    EXPECT_EQ(GetWindowLongPtrA(hFrame, GWL_EXSTYLE) & WS_EX_CLIENTEDGE, 0);
    EXPECT_EQ(GetClassLongPtrA(hFrame, GCL_STYLE), 0);
    DestroyWindow(hFrame);  // the frame deletes itself
}

}  // namespace
