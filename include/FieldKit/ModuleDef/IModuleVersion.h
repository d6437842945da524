// IModuleVersion: a module's version numbers and texts.
//
// The text operations follow the size protocol: a null buffer stores the
// needed size (length + 1) in `len` and succeeds; a buffer whose `len` is at
// least that receives the text and `len` the size used; a smaller one fails
// with nothing changed.
#ifndef FIELDKIT_MODULEDEF_IMODULEVERSION_H
#define FIELDKIT_MODULEDEF_IMODULEVERSION_H

#include "GroundKit/Base/IBase.h"

class IModuleVersion : public IBase {
public:
    virtual bool getBuildVersion(char* buf, unsigned long& len) = 0;
    // "<major>.<minor>.<revision>  BUILDTIME : <build text>"
    virtual bool getFullVersion(char* buf, unsigned long& len) = 0;
    // "<major>.<minor>.<revision>"
    virtual bool getShortVersion(char* buf, unsigned long& len) = 0;
    virtual unsigned int getMajorVersionNum() = 0;
    virtual unsigned int getMinorVersionNum() = 0;
    virtual unsigned int getRevisionNum() = 0;

    static const char* interfaceName() { return "IModuleVersion"; }

protected:
    ~IModuleVersion() = default;
};

#endif
