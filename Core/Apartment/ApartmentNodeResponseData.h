// A response stored in a node until its reader removes it.
#ifndef APARTMENT_APARTMENTNODERESPONSEDATA_H
#define APARTMENT_APARTMENTNODERESPONSEDATA_H

#include "GroundKit/Base/Stub.h"

class IApartmentNodeResponseData : public IBase {
public:
    // With a null buffer: a query; code and size receive the stored code and
    // length; true. With a buffer: size is its capacity on entry; false,
    // nothing changed, when it is smaller than the stored length; otherwise
    // the bytes are copied, code and size set, true.
    virtual bool getResponse(int& intResponseCode, void* pResponseBuffer,
                             unsigned int& uintBufLen) = 0;

    static const char* interfaceName() { return "IApartmentNodeResponseData"; }

protected:
    ~IApartmentNodeResponseData() = default;
};

class IApartmentNodeResponseDataStub : public TRootStub<IApartmentNodeResponseData> {};

class CApartmentNodeResponseData : public IApartmentNodeResponseDataStub {
public:
    // Copies the bytes when the buffer is not null and the length not 0;
    // otherwise keeps no bytes but still records the given length.
    CApartmentNodeResponseData(int intResponseCode, const void* pResponseBuffer,
                               unsigned int uintBufLen);
    virtual ~CApartmentNodeResponseData();

    bool getResponse(int& intResponseCode, void* pResponseBuffer,
                     unsigned int& uintBufLen) override;

private:
    int m_intResponseCode;
    char* m_pResponseBuffer;
    unsigned int m_uintBufLen;
};

#endif
