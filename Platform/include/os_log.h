/*
 * The log task: how the library's diagnostics reach standard output.
 *
 * Standard output belongs to the host, so the task never changes its
 * buffering (changing it once output has happened is undefined, and would
 * change how the host's own output reaches a pipe or file). Instead, while
 * the task is installed, every diagnostic line is flushed as soon as it is
 * written, so it leaves whole and at once even when standard output is a
 * pipe; without the task, lines follow the stream's own buffering.
 *
 * Calls nest: each install_log_task is matched by an uninstall_log_task;
 * an uninstall without a matching install only flushes. Install and
 * uninstall are called from one thread, not concurrently with each other;
 * log_task_line may be called from any thread at any time.
 */
#ifndef OS_LOG_H
#define OS_LOG_H

#include "os_platform_export.h"

OS_PLATFORM_BEGIN_DECLS

/* Never blocks beyond standard output's lock; changes nothing of the
 * stream itself. */
OS_PLATFORM_API void install_log_task(void);
/* Flushes standard output, then removes one installation. */
OS_PLATFORM_API void uninstall_log_task(void);
/* Writes one diagnostic line: the printf-formatted text and a newline,
 * under standard output's lock, flushed at once while the task is
 * installed. Blocks while standard output does (a full pipe). */
OS_PLATFORM_API void log_task_line(const char* format, ...) __attribute__((format(printf, 1, 2)));

OS_PLATFORM_END_DECLS

#endif
