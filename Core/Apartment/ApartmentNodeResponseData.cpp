#include "ApartmentNodeResponseData.h"

#include <cstring>

CApartmentNodeResponseData::CApartmentNodeResponseData(int intResponseCode,
                                                       const void* pResponseBuffer,
                                                       unsigned int uintBufLen)
    : m_intResponseCode(intResponseCode), m_pResponseBuffer(nullptr), m_uintBufLen(uintBufLen) {
    if (pResponseBuffer != nullptr && uintBufLen != 0) {
        m_pResponseBuffer = new char[uintBufLen];
        std::memcpy(m_pResponseBuffer, pResponseBuffer, uintBufLen);
    }
}

CApartmentNodeResponseData::~CApartmentNodeResponseData() { delete[] m_pResponseBuffer; }

bool CApartmentNodeResponseData::getResponse(int& intResponseCode, void* pResponseBuffer,
                                             unsigned int& uintBufLen) {
    if (pResponseBuffer != nullptr) {
        if (uintBufLen < m_uintBufLen) return false;
        if (m_pResponseBuffer != nullptr) std::memcpy(pResponseBuffer, m_pResponseBuffer, m_uintBufLen);
    }
    intResponseCode = m_intResponseCode;
    uintBufLen = m_uintBufLen;
    return true;
}
