// The message record that every producer posts to an apartment's queue, and
// the codes it can carry. What wParam and lParam hold for each code, and who
// owns what they point to, is decided by the apartment's dispatch: the queue
// itself never looks inside a message.
#ifndef APARTMENT_APARTMENTMSG_H
#define APARTMENT_APARTMENTMSG_H

#include "GroundKit/Base/BaseType.h"

enum APARTMENT_MSG_CODE {
    // 0 is no code.
    APARTMENT_QUIT = 1,               // end the message loop
    ADD_APARTMENT_CONNECTION = 2,     // a newly accepted connection is to be added
    REMOVE_APARTMENT_CONNECTION = 3,  // a connection is to be removed
    APARTMENT_CONNECTION_CLOSED = 4,  // the transport closed a connection
    LOOPDATA_FRAME_ARRIVED = 5,       // a frame arrived on the loopback link
    REQUEST_FRAME_ARRIVED = 6,        // a request frame arrived
    RESPONSE_FRAME_ARRIVED = 7,       // a response frame arrived
    NORMAL_FRAME_ARRIVED = 8,         // any other frame arrived
    APARTMENT_TIMER = 9               // a timer fired
};

// Copied by value everywhere. A pointer carried in wParam holds one
// reference, handed over by the poster and released by the dispatcher.
struct _APARTMENT_TMSG {
    APARTMENT_MSG_CODE m_intMsg;
    WPARAM wParam;
    LPARAM lParam;
};
typedef _APARTMENT_TMSG APARTMENT_TMSG;

static_assert(sizeof(APARTMENT_MSG_CODE) == 4, "message codes are 32 bits wide");

#endif
