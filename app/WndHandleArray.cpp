#include "app/WndHandleArray.h"

#include <climits>
#include <cstdlib>
#include <cstring>

CWndHandleArray::CWndHandleArray()
    : m_nGrowBy(10), m_nCapacity(0), m_nCount(0), m_pItems(nullptr) {}

CWndHandleArray::~CWndHandleArray() {
    free(m_pItems);
}

LONG CWndHandleArray::GetAt(int i) const {
    if (i < 0 || i >= m_nCount) return 0;
    return m_pItems[i];
}

int CWndHandleArray::Find(LONG hWnd) const {
    for (int i = 0; i < m_nCount; ++i) {
        if (m_pItems[i] == hWnd) return i;
    }
    return -1;
}

int CWndHandleArray::Add(LONG hWnd) {
    if (m_nCapacity <= m_nCount) {
        if (m_nCapacity > INT_MAX - m_nGrowBy) return 0;
        int capacity = m_nCapacity + m_nGrowBy;
        // Through a temporary: a failed realloc leaves the old block in place.
        void* grown = realloc(m_pItems, static_cast<size_t>(capacity) * sizeof(LONG));
        if (grown == nullptr) return 0;
        m_pItems = static_cast<LONG*>(grown);
        m_nCapacity = capacity;
    }
    m_pItems[m_nCount++] = hWnd;
    return 1;
}

void CWndHandleArray::RemoveAt(int i) {
    // A stale index can arrive when the main thread re-enters; it must not move memory.
    if (i < 0 || i >= m_nCount) return;
    memmove(m_pItems + i, m_pItems + i + 1, static_cast<size_t>(m_nCount - i - 1) * sizeof(LONG));
    --m_nCount;
}
