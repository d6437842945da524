// CReference<T>: a holder that owns exactly one reference to an IBase object.
//
// Construction from T* and assignment from T* ADOPT the pointer: they take
// over a reference the caller already owns (a fresh object, or the result of
// queryInterface, a cast function or a finder) and add none. Copies add one.
// Not thread-safe: one holder must not be assigned on two threads at once.
#ifndef GROUNDKIT_REFERENCE_REFERENCE_H
#define GROUNDKIT_REFERENCE_REFERENCE_H

#include "GroundKit/Base/IBase.h"

template <class T>
class CReference {
public:
    CReference() : m_pObject(nullptr) {}
    CReference(T* pObject) : m_pObject(pObject) {}  // NOLINT: adopting by design
    CReference(const CReference<T>& other) : m_pObject(other.m_pObject) {
        if (m_pObject != nullptr) m_pObject->addRef();
    }
    ~CReference() {
        if (m_pObject != nullptr) {
            m_pObject->releaseRef();
            m_pObject = nullptr;
        }
    }

    // Releases the held object, then adopts pObject. Assigning the pointer
    // already held releases it first: if that was the last reference the
    // object is gone and the holder dangles. Adopt only pointers you own.
    const CReference<T>& operator=(T* pObject) {
        if (m_pObject != nullptr) m_pObject->releaseRef();
        m_pObject = pObject;
        return *this;
    }

    // Adds the new reference before dropping the old, so self-assignment
    // keeps the object alive.
    const CReference<T>& operator=(const CReference<T>& other) {
        if (other.m_pObject != nullptr) other.m_pObject->addRef();
        if (m_pObject != nullptr) m_pObject->releaseRef();
        m_pObject = other.m_pObject;
        return *this;
    }

    bool nil() const { return m_pObject == nullptr; }

    // Empties the holder, then drops its reference. Returns the count that
    // releaseRef reported, 0 for an empty holder.
    ULONG release() {
        if (m_pObject == nullptr) return 0;
        T* old = m_pObject;
        m_pObject = nullptr;
        return old->releaseRef();
    }

    // Borrowed pointers: valid while the holder lives; never released.
    T* operator->() const { return m_pObject; }
    operator T*() const { return m_pObject; }

private:
    T* m_pObject;
};

#endif
