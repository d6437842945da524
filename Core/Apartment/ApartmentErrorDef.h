// Failure results of the status-returning apartment_* functions (0 is
// success).
#ifndef APARTMENT_APARTMENTERRORDEF_H
#define APARTMENT_APARTMENTERRORDEF_H

enum APARTMENT_ERROR {
    APARTMENT_NOT_INITIALIZED = -1,    // apartment_initialize has not succeeded
    CAN_NOT_FIND_APARTMENT = -2,       // no apartment under the given URL
    CAN_NOT_FIND_APARTMENT_NODE = -3,  // the apartment has no node of that name
    APARTMENT_METHOD_FAILED = -4       // the apartment or node operation failed
};

#endif
