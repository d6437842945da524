#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "os_stream.h"

/* Unread bytes are data[read_pos, write_pos); write_pos <= capacity. */
struct binary_stream_handle {
    char* data;
    size_t capacity;
    size_t read_pos;
    size_t write_pos;
    size_t bounded_size; /* 0: unlimited */
    size_t block_size;
};

struct cache_stream_handle {
    char* own;        /* owned, NULL when created with size 0 */
    size_t own_size;
    char* buffer;     /* current storage: `own` or the attached buffer */
    size_t capacity;
    size_t read_pos;
    size_t write_pos;
    int attached;
};

binary_stream_handle* binary_stream_create(size_t bounded_size, size_t block_size) {
    binary_stream_handle* h = calloc(1, sizeof *h);
    if (h == NULL) return NULL;
    h->bounded_size = bounded_size;
    h->block_size = block_size != 0 ? block_size : BYTE_STREAM_DEFAULT_BLOCK_SIZE;
    return h;
}

void binary_stream_destroy(binary_stream_handle** handle) {
    if (handle == NULL || *handle == NULL) return;
    free((*handle)->data);
    free(*handle);
    *handle = NULL;
}

static size_t unread(const binary_stream_handle* h) { return h->write_pos - h->read_pos; }

bool binary_stream_enough_writable(binary_stream_handle* handle, size_t size) {
    if (handle == NULL) return false;
    size_t held = unread(handle);
    if (size > SIZE_MAX - held) return false;
    return handle->bounded_size == 0 || held + size <= handle->bounded_size;
}

/* Makes room for `size` more bytes behind the write position. */
static int reserve(binary_stream_handle* h, size_t size) {
    if (size <= h->capacity - h->write_pos) return BYTE_STREAM_OPERATE_SUCCEED;
    size_t held = unread(h);
    if (h->read_pos != 0) { /* reuse the space already read */
        memmove(h->data, h->data + h->read_pos, held);
        h->read_pos = 0;
        h->write_pos = held;
        if (size <= h->capacity - held) return BYTE_STREAM_OPERATE_SUCCEED;
    }
    size_t needed = held + size; /* no overflow: checked by enough_writable */
    size_t blocks = needed / h->block_size + (needed % h->block_size != 0);
    size_t capacity;
    if (blocks > SIZE_MAX / h->block_size) {
        capacity = needed;
    } else {
        capacity = blocks * h->block_size;
    }
    if (h->bounded_size != 0 && capacity > h->bounded_size) capacity = h->bounded_size;
    char* grown = realloc(h->data, capacity);
    if (grown == NULL) return BYTE_STREAM_INNER_CRITICAL_ERROR;
    h->data = grown;
    h->capacity = capacity;
    return BYTE_STREAM_OPERATE_SUCCEED;
}

int binary_stream_write(binary_stream_handle* handle, const void* src, size_t size) {
    if (handle == NULL) return BYTE_STREAM_INNER_CRITICAL_ERROR;
    if (size == 0) return BYTE_STREAM_OPERATE_SUCCEED;
    if (src == NULL) return BYTE_STREAM_INNER_CRITICAL_ERROR;
    if (!binary_stream_enough_writable(handle, size)) return BYTE_STREAM_NOT_ENOUGH_SPACE;
    int result = reserve(handle, size);
    if (result != BYTE_STREAM_OPERATE_SUCCEED) return result;
    memcpy(handle->data + handle->write_pos, src, size);
    handle->write_pos += size;
    return BYTE_STREAM_OPERATE_SUCCEED;
}

int binary_stream_read(binary_stream_handle* handle, void* dst, size_t size) {
    if (handle == NULL) return BYTE_STREAM_INNER_CRITICAL_ERROR;
    if (size == 0) return BYTE_STREAM_OPERATE_SUCCEED;
    if (dst == NULL) return BYTE_STREAM_INNER_CRITICAL_ERROR;
    if (size > unread(handle)) return BYTE_STREAM_NOT_ENOUGH_SPACE;
    memcpy(dst, handle->data + handle->read_pos, size);
    handle->read_pos += size;
    if (handle->read_pos == handle->write_pos) handle->read_pos = handle->write_pos = 0;
    return BYTE_STREAM_OPERATE_SUCCEED;
}

size_t binary_stream_get_length(binary_stream_handle* handle) {
    return handle != NULL ? unread(handle) : 0;
}

bool binary_stream_enough_readable(binary_stream_handle* handle, size_t size) {
    return handle != NULL && size <= unread(handle);
}

cache_stream_handle* cache_stream_create(size_t cache_size) {
    cache_stream_handle* h = calloc(1, sizeof *h);
    if (h == NULL) return NULL;
    if (cache_size != 0) {
        h->own = malloc(cache_size);
        if (h->own == NULL) {
            free(h);
            return NULL;
        }
        h->own_size = cache_size;
    }
    h->buffer = h->own;
    h->capacity = h->own_size;
    return h;
}

void cache_stream_destroy(cache_stream_handle** handle) {
    if (handle == NULL || *handle == NULL) return;
    free((*handle)->own);
    free(*handle);
    *handle = NULL;
}

bool cache_stream_attach(cache_stream_handle* handle, char* buffer, size_t size) {
    if (handle == NULL || (buffer == NULL && size != 0)) return false;
    handle->buffer = buffer;
    handle->capacity = size;
    handle->read_pos = handle->write_pos = 0;
    handle->attached = 1;
    return true;
}

char* cache_stream_detach(cache_stream_handle* handle, size_t* size) {
    char* buffer = NULL;
    size_t written = 0;
    if (handle != NULL && handle->attached) {
        buffer = handle->buffer;
        written = handle->write_pos;
        handle->buffer = handle->own;
        handle->capacity = handle->own_size;
        handle->read_pos = handle->write_pos = 0;
        handle->attached = 0;
    }
    if (size != NULL) *size = written;
    return buffer;
}

int cache_stream_write(cache_stream_handle* handle, const void* src, size_t size) {
    if (handle == NULL) return BYTE_STREAM_INNER_CRITICAL_ERROR;
    if (size == 0) return BYTE_STREAM_OPERATE_SUCCEED;
    if (src == NULL) return BYTE_STREAM_INNER_CRITICAL_ERROR;
    if (!cache_stream_enough_writable(handle, size)) return BYTE_STREAM_NOT_ENOUGH_SPACE;
    char* dst = handle->buffer + handle->write_pos;
    if (dst != src) memmove(dst, src, size);
    handle->write_pos += size;
    return BYTE_STREAM_OPERATE_SUCCEED;
}

int cache_stream_read(cache_stream_handle* handle, void* dst, size_t size) {
    if (handle == NULL) return BYTE_STREAM_INNER_CRITICAL_ERROR;
    if (size == 0) return BYTE_STREAM_OPERATE_SUCCEED;
    if (dst == NULL) return BYTE_STREAM_INNER_CRITICAL_ERROR;
    if (!cache_stream_enough_readable(handle, size)) return BYTE_STREAM_NOT_ENOUGH_SPACE;
    memmove(dst, handle->buffer + handle->read_pos, size);
    handle->read_pos += size;
    return BYTE_STREAM_OPERATE_SUCCEED;
}

size_t cache_stream_get_length(cache_stream_handle* handle) {
    return handle != NULL ? handle->write_pos - handle->read_pos : 0;
}

bool cache_stream_enough_readable(cache_stream_handle* handle, size_t size) {
    return handle != NULL && size <= handle->write_pos - handle->read_pos;
}

bool cache_stream_enough_writable(cache_stream_handle* handle, size_t size) {
    return handle != NULL && size <= handle->capacity - handle->write_pos;
}
