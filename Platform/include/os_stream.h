/* Byte stores behind the serialisation streams. (Filled in with the streams.) */
#ifndef OS_STREAM_H
#define OS_STREAM_H

#include "os_platform_export.h"

#endif
