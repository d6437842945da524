#include "ApartmentVersion.h"

unsigned int CApartmentVersion::getMajorVersionNum() { return 1; }
unsigned int CApartmentVersion::getMinorVersionNum() { return 0; }
unsigned int CApartmentVersion::getRevisionNum() { return 0; }
