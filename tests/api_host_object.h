// HostObject<I>: the reference counting of the callback objects a host
// hands to the library (the library only sees IBase and I). Used
// by the end-to-end tests and their peer program, which see the library
// only through its C interface.
#ifndef APARTMENT_TESTS_API_HOST_OBJECT_H
#define APARTMENT_TESTS_API_HOST_OBJECT_H

#include "ApartmentApi.h"
#include "ApartmentHost.h"

// The counting a host would otherwise write by hand comes from the helper
// header that the library installs for hosts.
template <class I>
using HostObject = ApartmentHost::TCountedCallback<I>;

// Holds the creator's reference of a HostObject and drops it at scope end;
// the library keeps its own while the object is installed.
template <class T>
class Held {
public:
    Held() : m_p(new T()) {}
    ~Held() { m_p->releaseRef(); }
    Held(const Held&) = delete;
    Held& operator=(const Held&) = delete;
    T* operator->() const { return m_p; }
    T* get() const { return m_p; }

private:
    T* m_p;
};

#endif
