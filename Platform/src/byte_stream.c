#include "os_stream.h"
