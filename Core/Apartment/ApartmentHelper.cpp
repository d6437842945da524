#include "ApartmentHelper.h"

#include <vector>

bool CApartmentHelper::getApartmentUrl(const IApartment* pApartment, std::string& strUrl) {
    if (pApartment == nullptr) return false;
    DWORD len = 0;
    if (!pApartment->getApartmentUrl(nullptr, len) || len == 0) return false;
    std::vector<char> buffer(len, '\0');
    pApartment->getApartmentUrl(buffer.data(), len);
    strUrl.assign(buffer.data());
    return true;
}

bool CApartmentHelper::localApartmentUrl(IApartment* pApartment,
                                         const char* strRemoteApartmentUrl, bool bRtConnection,
                                         std::string& strUrl) {
    if (pApartment == nullptr) return false;
    DWORD len = 0;
    if (!pApartment->localApartmentUrl(strRemoteApartmentUrl, bRtConnection, nullptr, len) ||
        len == 0)
        return false;
    std::vector<char> buffer(len, '\0');
    pApartment->localApartmentUrl(strRemoteApartmentUrl, bRtConnection, buffer.data(), len);
    strUrl.assign(buffer.data());
    return true;
}
