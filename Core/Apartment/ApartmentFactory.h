// Chooses and initialises the apartment class for a URL's scheme. Only
// "tcp://" exists.
#ifndef APARTMENT_APARTMENTFACTORY_H
#define APARTMENT_APARTMENTFACTORY_H

#include "IApartment.h"

class CApartmentFactory {
public:
    // TCP_APARTMENT when the URL starts with exactly "tcp://" (case
    // matters), else INVALID_APARTMENT.
    static APARTMENT_TYPE apartmentType(const char* strApartmentUrl);
    // A new, initialised apartment with one reference for the caller, or
    // null for another scheme or a failed initialisation. "tcp://" alone
    // listens on every interface on a port the system chooses.
    static IApartment* createApartment(const char* strApartmentUrl, bool bListen);
};

#endif
