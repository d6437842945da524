/* Export marker of the platform support layer. */
#ifndef OS_PLATFORM_EXPORT_H
#define OS_PLATFORM_EXPORT_H

#define OS_PLATFORM_API __attribute__((visibility("default")))

#ifdef __cplusplus
#define OS_PLATFORM_BEGIN_DECLS extern "C" {
#define OS_PLATFORM_END_DECLS }
#else
#define OS_PLATFORM_BEGIN_DECLS
#define OS_PLATFORM_END_DECLS
#endif

#endif
