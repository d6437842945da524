#include "os_socket.h"
