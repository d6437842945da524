// IMessageQueue: a thread-safe FIFO of APARTMENT_TMSG records.
//
// Any thread may push; the thread that pumps an apartment pops. The queue
// has two independent switches: "interrupted" ends blocking pops that find
// the queue empty, "locked" makes it drop pushes and refuse pops while it
// keeps what it already holds. A pop that returns false leaves the message
// argument untouched; time-out, interrupt, lock and a failed wait all look
// the same to the caller.
#ifndef APARTMENT_IMESSAGEQUEUE_H
#define APARTMENT_IMESSAGEQUEUE_H

#include "ApartmentMsg.h"
#include "GroundKit/Base/IBase.h"
#include "GroundKit/Base/Stub.h"
#include "GroundKit/OS/OSType.h"

class IMessageQueue : public IBase {
public:
    // Empties the queue and forgets a pending interrupt. Does nothing while
    // the queue is locked. Never blocks beyond the queue's own mutex.
    virtual void reset() = 0;
    // Appends a copy and wakes every waiter. False when the message was
    // dropped because the queue is locked: its payload then stays with the
    // caller, who releases it.
    virtual bool push(const APARTMENT_TMSG& msg) = 0;
    // Takes the front message if there is one and the queue is not locked.
    // Never waits and ignores the interrupt flag.
    virtual bool tryPop(APARTMENT_TMSG& msg) = 0;
    // Blocking pop without limit.
    virtual bool pop(APARTMENT_TMSG& msg) = 0;
    // Blocking pop for at most intTimeout milliseconds; a negative value
    // waits without limit, 0 gives up as soon as the queue is found empty.
    virtual bool pop(APARTMENT_TMSG& msg, int intTimeout) = 0;
    // Blocking pop until an absolute deadline on the monotonic clock, or
    // without limit when both fields of the deadline are -1.
    virtual bool pop(APARTMENT_TMSG& msg, timespec deadline) = 0;
    // Ends the blocking pops that are waiting on an empty queue now. A pop
    // that starts later forgets it.
    virtual void interruptPop() = 0;
    virtual unsigned int getQueueSize() = 0;
    // Wakes every waiter (which then returns false) and locks the queue.
    virtual void lockQueue() = 0;
    virtual void unlockQueue() = 0;

    static const char* interfaceName() { return "IMessageQueue"; }

protected:
    ~IMessageQueue() = default;
};

class IMessageQueueStub : public TRootStub<IMessageQueue> {};

#endif
