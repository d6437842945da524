/*
 * The log task. The library writes its diagnostics with printf on standard
 * output from several threads; installing the log task makes standard
 * output line buffered, so that each diagnostic leaves whole and at once
 * even when output goes to a pipe, and removing it flushes what is pending.
 *
 * Calls nest: each install_log_task is matched by an uninstall_log_task, and
 * only the outermost pair changes buffering. An uninstall without a matching
 * install only flushes. Call both from one thread, not concurrently with
 * each other.
 */
#ifndef OS_LOG_H
#define OS_LOG_H

#include "os_platform_export.h"

OS_PLATFORM_BEGIN_DECLS

OS_PLATFORM_API void install_log_task(void);
OS_PLATFORM_API void uninstall_log_task(void);

OS_PLATFORM_END_DECLS

#endif
