// String forms of an apartment's buffer-style getters.
#ifndef APARTMENT_APARTMENTHELPER_H
#define APARTMENT_APARTMENTHELPER_H

#include <string>

#include "IApartment.h"

class CApartmentHelper {
public:
    // False for a null apartment or when the URL is unavailable; `url` is
    // then unchanged.
    static bool getApartmentUrl(const IApartment* pApartment, std::string& strUrl);
    // This apartment's URL as seen on its link to strRemoteApartmentUrl.
    static bool localApartmentUrl(IApartment* pApartment, const char* strRemoteApartmentUrl,
                                  bool bRtConnection, std::string& strUrl);
};

#endif
