// The reference counting and interface lookup that every I...Stub shares.
//
// A root stub sits directly on one interface and owns the count:
//
//     class IMessageQueueStub : public TRootStub<IMessageQueue> {};
//
// It starts at 1 (the creator owns the first reference) and answers "IBase"
// and the interface's own name. An extension stub adds a second interface to
// a class that already has a stub; it has no count of its own, forwards
// counting to its first base (also for calls that arrive through the second
// interface's sub-object) and answers one more name:
//
//     class IApartmentExStub : public TExtensionStub<IApartmentStub, IApartmentEx> {
//         using TExtensionStub::TExtensionStub;
//     };
//
// Virtual slot order, after the interface's operations: the destructor, then
// onFinalRelease, a hook that runs once, on the thread of the last release,
// before the object is deleted.
#ifndef GROUNDKIT_BASE_STUB_H
#define GROUNDKIT_BASE_STUB_H

#include <cstring>

#include "GroundKit/Base/IBase.h"
#include "GroundKit/OS/OS_Thread.h"

namespace GroundKit {
// True when `name` is exactly `candidate`; a null name matches nothing.
inline bool interfaceNameIs(const char* name, const char* candidate) {
    return name != nullptr && std::strcmp(name, candidate) == 0;
}
}  // namespace GroundKit

template <class Interface>
class TRootStub : public Interface {
public:
    TRootStub() : m_dwRef(1) {}
    TRootStub(const TRootStub&) = delete;
    TRootStub& operator=(const TRootStub&) = delete;

    bool queryInterface(const char* strInterfaceName, void** ppInterface) override {
        if (ppInterface == nullptr) return false;
        if (GroundKit::interfaceNameIs(strInterfaceName, IBase::interfaceName()) ||
            GroundKit::interfaceNameIs(strInterfaceName, Interface::interfaceName())) {
            *ppInterface = static_cast<Interface*>(this);
            this->addRef();
            return true;
        }
        return false;
    }

    ULONG addRef() override { return OS::Thread::syncFetchAdd(&m_dwRef); }

    ULONG releaseRef() override {
        const ULONG remaining = OS::Thread::syncFetchSub(&m_dwRef);
        if (remaining != 0) return remaining;
        onFinalRelease();
        delete this;
        return 0;
    }

    virtual ~TRootStub() {}
    virtual void onFinalRelease() {}

protected:
    volatile ULONG m_dwRef;
};

template <class Base, class Interface>
class TExtensionStub : public Base, public Interface {
public:
    using Base::Base;

    bool queryInterface(const char* strInterfaceName, void** ppInterface) override {
        if (ppInterface == nullptr) return false;
        if (GroundKit::interfaceNameIs(strInterfaceName, Interface::interfaceName())) {
            *ppInterface = static_cast<Interface*>(this);
            Base::addRef();
            return true;
        }
        return Base::queryInterface(strInterfaceName, ppInterface);
    }

    ULONG addRef() override { return Base::addRef(); }
    ULONG releaseRef() override { return Base::releaseRef(); }
};

#endif
