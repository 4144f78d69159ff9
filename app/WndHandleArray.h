#pragma once
// A growable array of window handles kept as their 32 bits (what the request carries).

#include <windows.h>

class CWndHandleArray {
public:
    CWndHandleArray();
    virtual ~CWndHandleArray();

    CWndHandleArray(const CWndHandleArray&) = delete;
    CWndHandleArray& operator=(const CWndHandleArray&) = delete;

    int GetCount() const { return m_nCount; }
    int GetCapacity() const { return m_nCapacity; }
    // Item i, or 0 when i is not an index of an item.
    LONG GetAt(int i) const;
    // The first index holding hWnd, or -1.
    int Find(LONG hWnd) const;
    // Appends; 0 when the block cannot grow (the array is unchanged then).
    int Add(LONG hWnd);
    // Removes item i, keeping the order of the rest; nothing happens out of range.
    void RemoveAt(int i);

private:
    int m_nGrowBy;
    int m_nCapacity;
    int m_nCount;
    LONG* m_pItems;
};
