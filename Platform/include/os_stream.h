/*
 * Byte stores behind the serialisation streams (FieldKit/BoundedStream).
 *
 * Two stores, both FIFO byte queues with a read position and a write
 * position:
 *   binary_stream  owns a buffer that grows as bytes are written; the frame
 *                  writers build payloads in it.
 *   cache_stream   works over a buffer that the caller attaches and keeps
 *                  alive; the frame readers parse received frames in place
 *                  with it.
 *
 * A handle is used by one thread at a time; the layer does no locking. No
 * function blocks or prints. A NULL handle is accepted everywhere: queries
 * answer 0/false, reads and writes return BYTE_STREAM_INNER_CRITICAL_ERROR,
 * destroy does nothing.
 *
 * Read and write results are the codes below, chosen to equal the stream
 * exception codes so that the streams can throw them unchanged. A failed
 * read or write transfers nothing and leaves both positions as they were.
 */
#ifndef OS_STREAM_H
#define OS_STREAM_H

#include <stdbool.h>
#include <stddef.h>

#include "os_platform_export.h"

OS_PLATFORM_BEGIN_DECLS

/* Opaque handles owned by the platform layer. */
typedef struct binary_stream_handle binary_stream_handle;
typedef struct cache_stream_handle cache_stream_handle;

/* The whole transfer was done. */
#define BYTE_STREAM_OPERATE_SUCCEED 0
/* NULL handle, NULL buffer with a non-zero size, or out of memory. */
#define BYTE_STREAM_INNER_CRITICAL_ERROR (-2)
/* A write does not fit (bound, attached capacity or size_t overflow), or a
 * read asks for more bytes than are unread. */
#define BYTE_STREAM_NOT_ENOUGH_SPACE (-3)

/* Default growth step when binary_stream_create is given a block size of 0. */
#define BYTE_STREAM_DEFAULT_BLOCK_SIZE 512

/*
 * Creates an empty binary stream. No storage is allocated until the first
 * write. The storage grows in whole multiples of `block_size` bytes (0 means
 * BYTE_STREAM_DEFAULT_BLOCK_SIZE); before growing, unread bytes are moved to
 * the front so space already read is reused.
 * `bounded_size` 0 means no limit other than memory and size_t; a non-zero
 * `bounded_size` caps the bytes the stream holds at once (written and not
 * yet read): a write that would pass it fails with
 * BYTE_STREAM_NOT_ENOUGH_SPACE, and the storage never grows beyond it.
 * Returns NULL when out of memory.
 */
OS_PLATFORM_API binary_stream_handle* binary_stream_create(size_t bounded_size,
                                                           size_t block_size);
/* Frees the stream and its storage and clears *handle. NULL or *NULL is a
 * no-op. */
OS_PLATFORM_API void binary_stream_destroy(binary_stream_handle** handle);
/* Appends `size` bytes of `src` at the write position, growing the storage
 * if needed. Size 0 always succeeds (src may then be NULL). Returns a
 * BYTE_STREAM_* code; BYTE_STREAM_INNER_CRITICAL_ERROR when growing fails. */
OS_PLATFORM_API int binary_stream_write(binary_stream_handle* handle, const void* src,
                                        size_t size);
/* Copies `size` bytes from the read position into `dst` and consumes them.
 * Size 0 always succeeds. Returns BYTE_STREAM_NOT_ENOUGH_SPACE when fewer
 * than `size` bytes are unread. */
OS_PLATFORM_API int binary_stream_read(binary_stream_handle* handle, void* dst, size_t size);
/* Bytes written and not yet read. */
OS_PLATFORM_API size_t binary_stream_get_length(binary_stream_handle* handle);
/* True when at least `size` bytes are unread. */
OS_PLATFORM_API bool binary_stream_enough_readable(binary_stream_handle* handle, size_t size);
/* True when a write of `size` bytes would not be refused for the bound or
 * for overflow (it may still fail for lack of memory). */
OS_PLATFORM_API bool binary_stream_enough_writable(binary_stream_handle* handle, size_t size);

/*
 * Creates an empty cache stream. With `cache_size` 0 it has no memory of its
 * own and holds nothing until a buffer is attached; otherwise it owns a
 * buffer of `cache_size` bytes that serves as storage whenever no caller
 * buffer is attached. Returns NULL when out of memory.
 */
OS_PLATFORM_API cache_stream_handle* cache_stream_create(size_t cache_size);
/* Frees the stream and its own buffer (never an attached one) and clears
 * *handle. NULL or *NULL is a no-op. */
OS_PLATFORM_API void cache_stream_destroy(cache_stream_handle** handle);
/*
 * Uses the caller's `buffer` of capacity `size` as storage, replacing any
 * previous attachment, with both positions at its start: the buffer is then
 * empty for reading until bytes are written into it. The buffer is not owned
 * and must outlive the attachment. NULL with size 0 attaches an empty store.
 * Returns false for a NULL handle or a NULL buffer with a non-zero size
 * (nothing changes then).
 */
OS_PLATFORM_API bool cache_stream_attach(cache_stream_handle* handle, char* buffer, size_t size);
/*
 * Ends the attachment and returns the caller's buffer (NULL if none was
 * attached); *size receives the number of bytes written into it. The
 * stream is then empty over its own buffer again. `size` may be NULL.
 */
OS_PLATFORM_API char* cache_stream_detach(cache_stream_handle* handle, size_t* size);
/*
 * Copies `size` bytes of `src` to the write position. The storage never
 * grows: BYTE_STREAM_NOT_ENOUGH_SPACE when they do not fit. `src` may lie
 * inside the storage itself (overlap is handled; writing an attached buffer
 * over itself just marks its bytes as written).
 */
OS_PLATFORM_API int cache_stream_write(cache_stream_handle* handle, const void* src, size_t size);
/* As binary_stream_read. Space that has been read is not reused. */
OS_PLATFORM_API int cache_stream_read(cache_stream_handle* handle, void* dst, size_t size);
/* Bytes written and not yet read. */
OS_PLATFORM_API size_t cache_stream_get_length(cache_stream_handle* handle);
/* True when at least `size` bytes are unread. */
OS_PLATFORM_API bool cache_stream_enough_readable(cache_stream_handle* handle, size_t size);
/* True when `size` more bytes fit behind the write position. */
OS_PLATFORM_API bool cache_stream_enough_writable(cache_stream_handle* handle, size_t size);

OS_PLATFORM_END_DECLS

#endif
