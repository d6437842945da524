// IApartmentFrame: one received frame on its way from a communication
// thread, through the apartment's queue, to the handler that reads it.
#ifndef APARTMENT_IAPARTMENTFRAME_H
#define APARTMENT_IAPARTMENTFRAME_H

#include "GroundKit/Base/IBase.h"

class IApartmentFrame : public IBase {
public:
    // The type number from the frame header.
    virtual unsigned int getFrameType() = 0;
    // The payload size in bytes (the header not included).
    virtual unsigned int getFrameSize() = 0;
    // The payload; null when the size is 0. Owned by the frame.
    virtual char* getFrameBuffer() = 0;

    static const char* interfaceName() { return "IApartmentFrame"; }

protected:
    ~IApartmentFrame() = default;
};

#endif
