// The version object that apartment_get_module_version hands out: 1.0.0.
#ifndef APARTMENT_APARTMENTVERSION_H
#define APARTMENT_APARTMENTVERSION_H

#include "FieldKit/ModuleDef/AbstractModuleVersion.h"

class CApartmentVersion : public CAbstractModuleVersion {
public:
    unsigned int getMajorVersionNum() override;
    unsigned int getMinorVersionNum() override;
    unsigned int getRevisionNum() override;
};

#endif
