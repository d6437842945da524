// HostObject<I>: the reference counting a host writes for the callback
// objects it hands to the library (the library only sees IBase and I). Used
// by the end-to-end tests and their peer program, which see the library
// only through its C interface.
#ifndef APARTMENT_TESTS_API_HOST_OBJECT_H
#define APARTMENT_TESTS_API_HOST_OBJECT_H

#include <atomic>
#include <cstring>

#include "ApartmentApi.h"

template <class I>
class HostObject : public I {
public:
    HostObject(const HostObject&) = delete;
    HostObject& operator=(const HostObject&) = delete;

    bool queryInterface(const char* strInterfaceName, void** ppInterface) override {
        if (strInterfaceName == nullptr || ppInterface == nullptr) return false;
        if (std::strcmp(strInterfaceName, "IBase") != 0 &&
            std::strcmp(strInterfaceName, I::interfaceName()) != 0)
            return false;
        *ppInterface = static_cast<I*>(this);
        addRef();
        return true;
    }
    ULONG addRef() override { return ++m_count; }
    ULONG releaseRef() override {
        const ULONG left = --m_count;
        if (left == 0) delete this;
        return left;
    }

protected:
    HostObject() = default;
    virtual ~HostObject() = default;

private:
    std::atomic<ULONG> m_count{1};
};

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
