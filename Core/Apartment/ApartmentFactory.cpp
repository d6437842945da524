#include "ApartmentFactory.h"

#include <cstring>

#include "TcpApartment.h"

namespace {
const char TCP_SCHEME[] = "tcp://";
const size_t TCP_SCHEME_LENGTH = sizeof(TCP_SCHEME) - 1;
}  // namespace

APARTMENT_TYPE CApartmentFactory::apartmentType(const char* strApartmentUrl) {
    if (strApartmentUrl != nullptr &&
        std::strncmp(strApartmentUrl, TCP_SCHEME, TCP_SCHEME_LENGTH) == 0)
        return TCP_APARTMENT;
    return INVALID_APARTMENT;
}

IApartment* CApartmentFactory::createApartment(const char* strApartmentUrl, bool bListen) {
    if (apartmentType(strApartmentUrl) != TCP_APARTMENT) return nullptr;
    IApartment* apartment = new CTcpApartment();
    const bool schemeOnly = std::strlen(strApartmentUrl) < TCP_SCHEME_LENGTH + 1;
    if (!apartment->initApartment(schemeOnly ? nullptr : strApartmentUrl, bListen)) {
        apartment->releaseRef();  // tears the half-built apartment down
        return nullptr;
    }
    return apartment;
}
