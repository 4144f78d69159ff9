#pragma once
// A top-level frame window, made with new and deleted by itself when its window is destroyed.

#include <windows.h>

#include "app/framework/Wnd.h"

class CCreateContext;

class CFrameWnd : public CWnd {
public:
    CFrameWnd();
    ~CFrameWnd() override;

    // A null class name selects the layer's default frame class. pParentWnd, lpszMenuName and
    // pContext are accepted for the usual call shape; only null is supported.
    BOOL Create(LPCSTR lpszClassName, LPCSTR lpszWindowName, DWORD dwStyle, const RECT& rect,
                CWnd* pParentWnd = nullptr, LPCSTR lpszMenuName = nullptr, DWORD dwExStyle = 0,
                CCreateContext* pContext = nullptr);

    // Adjusts the creation parameters before the window is made; FALSE cancels the creation.
    virtual BOOL PreCreateWindow(CREATESTRUCTA& cs);

protected:
    int OnCreate(LPCREATESTRUCTA lpCreateStruct);
    void OnClose();
    void PostNcDestroy() override;

    DECLARE_MESSAGE_MAP()
};
