// IApartmentEx: the posting side of an apartment, reached from an
// IApartment with asIApartmentEx.
#ifndef APARTMENT_IAPARTMENTEX_H
#define APARTMENT_IAPARTMENTEX_H

#include "ApartmentMsg.h"
#include "GroundKit/Base/IBase.h"

class IApartmentEx : public IBase {
public:
    // Queues a message for the apartment's dispatching thread. Any thread
    // may post, holding no lock of the apartment's or the timer manager's.
    // A pointer in wParam carries one reference that travels with the
    // message; a message dropped because dispatch has stopped releases it
    // here (which may destroy the payload), so nothing is lost unreleased.
    virtual void postMessage(const APARTMENT_TMSG& msg) = 0;

    static const char* interfaceName() { return "IApartmentEx"; }

protected:
    ~IApartmentEx() = default;
};

// Null for null or for an object without the interface; otherwise the view
// with one reference added, which the caller adopts.
inline IApartmentEx* asIApartmentEx(IBase* pObject) {
    return queryInterfaceAs<IApartmentEx>(pObject);
}

#endif
