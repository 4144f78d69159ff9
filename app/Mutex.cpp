#include "app/Mutex.h"

CMutex::~CMutex() {
    if (m_hMutex != nullptr) CloseHandle(m_hMutex);
}

int CMutex::Create() {
    if (m_hMutex == nullptr) m_hMutex = CreateMutexA(nullptr, FALSE, nullptr);
    return m_hMutex != nullptr ? 1 : 0;
}

void CMutex::Enter() {
    if (m_hMutex != nullptr) WaitForSingleObject(m_hMutex, INFINITE);
}

void CMutex::Leave() {
    if (m_hMutex != nullptr) ReleaseMutex(m_hMutex);
}
