// The main frame's window (hidden, no client edge, a class of style 0) and its client list.

#include <gtest/gtest.h>

#include "app/MainFrame.h"
#include "app/WndHandleArray.h"

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

// ---- The client list ----

TEST(WndHandleArray, GrowsByTenAndKeepsOrderOnRemoval) {
    CWndHandleArray array;
    EXPECT_EQ(array.GetCapacity(), 0);
    for (LONG h = 1; h <= 10; ++h) ASSERT_TRUE(array.Add(h));
    EXPECT_EQ(array.GetCapacity(), 10);
    ASSERT_TRUE(array.Add(11));
    EXPECT_EQ(array.GetCapacity(), 20);
    for (LONG h = 12; h <= 21; ++h) ASSERT_TRUE(array.Add(h));
    EXPECT_EQ(array.GetCapacity(), 30);
    EXPECT_EQ(array.GetCount(), 21);

    array.RemoveAt(0);
    array.RemoveAt(9);    // was 11
    array.RemoveAt(18);   // the last one, 21
    ASSERT_EQ(array.GetCount(), 18);
    EXPECT_EQ(array.GetAt(0), 2);
    EXPECT_EQ(array.GetAt(8), 10);
    EXPECT_EQ(array.GetAt(9), 12);
    EXPECT_EQ(array.GetAt(17), 20);
    EXPECT_EQ(array.Find(11), -1);
    EXPECT_EQ(array.Find(12), 9);
}

TEST(WndHandleArray, OutOfRangeIndexesDoNothing) {
    CWndHandleArray array;
    EXPECT_EQ(array.GetAt(0), 0);
    array.RemoveAt(0);
    array.Add(-5);
    array.RemoveAt(1);
    array.RemoveAt(-1);
    array.RemoveAt(0x7FFFFFFF);
    ASSERT_EQ(array.GetCount(), 1);
    EXPECT_EQ(array.GetAt(0), -5);
    EXPECT_EQ(array.GetAt(-1), 0);
    EXPECT_EQ(array.GetAt(1), 0);
    array.RemoveAt(0);
    EXPECT_EQ(array.GetCount(), 0);
    EXPECT_EQ(array.Find(-5), -1);
    array.RemoveAt(0);
    EXPECT_EQ(array.GetCount(), 0);
}

}  // namespace
