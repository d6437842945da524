/* IPv4 sockets. (Filled in with the transport.) */
#ifndef OS_SOCKET_H
#define OS_SOCKET_H

#include "os_platform_export.h"
#include "GroundKit/OS/OSType.h"

#endif
