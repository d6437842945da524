// CAbstractModuleVersion: the text forms of a module's version, built from
// the three numbers that each module supplies by overriding the number
// operations. The texts are formatted afresh on every call.
#ifndef FIELDKIT_MODULEDEF_ABSTRACTMODULEVERSION_H
#define FIELDKIT_MODULEDEF_ABSTRACTMODULEVERSION_H

#include <string>

#include "FieldKit/ModuleDef/IModuleVersion.h"
#include "GroundKit/Base/Stub.h"
#include "GroundKit/StringAssistant/StringAssistant.h"

class IModuleVersionStub : public TRootStub<IModuleVersion> {};

class CAbstractModuleVersion : public IModuleVersionStub {
public:
    // The build text is a fixed request (UTF-8) that the module record its
    // build time with updateBuildTime.
    CAbstractModuleVersion()
        : m_strBuildTime("请为模块调用UpdateBuildTime方法更新编译版本号") {}

    bool getBuildVersion(char* buf, unsigned long& len) override {
        return CStringAssistant::getBaseStringFromSTLString(m_strBuildTime, buf, len);
    }
    bool getFullVersion(char* buf, unsigned long& len) override {
        return CStringAssistant::getBaseStringFromSTLString(
            CStringAssistant::format("%d.%d.%d  BUILDTIME : %s",
                                     static_cast<int>(getMajorVersionNum()),
                                     static_cast<int>(getMinorVersionNum()),
                                     static_cast<int>(getRevisionNum()), m_strBuildTime.c_str()),
            buf, len);
    }
    bool getShortVersion(char* buf, unsigned long& len) override {
        return CStringAssistant::getBaseStringFromSTLString(
            CStringAssistant::format("%d.%d.%d", static_cast<int>(getMajorVersionNum()),
                                     static_cast<int>(getMinorVersionNum()),
                                     static_cast<int>(getRevisionNum())),
            buf, len);
    }

    // Declared for modules that stamp their build time; this library never
    // defines or calls it, so its build text keeps the fixed value.
    void updateBuildTime();

protected:
    std::string m_strBuildTime;
};

#endif
