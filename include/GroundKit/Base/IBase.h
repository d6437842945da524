// IBase: the root of every interface in the library.
//
// Shared objects are reached through interfaces derived from IBase, asked
// for by name and kept alive by an intrusive, atomic reference count:
//   - queryInterface(name, &p): when the object offers the interface called
//     `name` (exact, case-sensitive), *p receives that interface's sub-object
//     with one reference added for the caller, and the result is true. On a
//     miss the result is false and *p is left as it was.
//   - addRef / releaseRef return the count after the change; the release that
//     reaches 0 runs the object's onFinalRelease and deletes it, on whatever
//     thread made it.
// Interfaces carry no data. Each one names itself through a static
// interfaceName(), which the stubs (Stub.h) use to answer queryInterface.
#ifndef GROUNDKIT_BASE_IBASE_H
#define GROUNDKIT_BASE_IBASE_H

#include "GroundKit/Base/BaseType.h"

class IBase {
public:
    virtual bool queryInterface(const char* strInterfaceName, void** ppInterface) = 0;
    virtual ULONG addRef() = 0;
    virtual ULONG releaseRef() = 0;

    static const char* interfaceName() { return "IBase"; }

protected:
    // Objects are destroyed by their last releaseRef, never through an
    // interface pointer.
    ~IBase() = default;
};

// The cast functions (asIApartmentEx, asIApartmentSink, ...) are this, named:
// null for a null object or a refused query; otherwise the interface pointer
// with one reference added, which the caller owns and adopts.
template <class Interface>
Interface* queryInterfaceAs(IBase* pObject) {
    if (pObject == nullptr) return nullptr;
    Interface* pResult = nullptr;
    if (!pObject->queryInterface(Interface::interfaceName(), reinterpret_cast<void**>(&pResult)))
        return nullptr;
    return pResult;
}

#endif
