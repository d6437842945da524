// Log levels shared by the modules of the application. The library itself
// writes nothing through the log; diagnostics go to standard output.
#ifndef GROUNDKIT_LOG_ZOLTLOGDEF_H
#define GROUNDKIT_LOG_ZOLTLOGDEF_H

namespace zolt {

enum LogLevel {
    ZOLT_LOG_TEST = 0,
    ZOLT_LOG_DEBUG = 1,
    ZOLT_LOG_INFO = 2,
    ZOLT_LOG_WARNING = 3,
    ZOLT_LOG_ERROR = 4
};

}  // namespace zolt

#endif
