// The two concrete serialisation streams. Both forward their storage to the
// byte stores of the platform layer (os_stream.h) and own their handle.
//
// CBoundedStream grows its own buffer; the frame writers build payloads in
// it, constructed as CBoundedStream(0, 512): no upper bound, growth in steps
// of 512 bytes.
//
// CCacheStream reads over memory that the caller already holds; the frame
// readers attach it to a received frame and parse it in place. The attached
// memory is not owned: the caller keeps it alive while it is attached and
// frees it itself.
//
// Neither is copyable; each is used by one thread (see AbstractStream.h).
// If the platform layer cannot create the handle (out of memory) the stream
// is still usable: every check fails and every transfer throws.
#ifndef FIELDKIT_BOUNDEDSTREAM_BOUNDEDSTREAM_H
#define FIELDKIT_BOUNDEDSTREAM_BOUNDEDSTREAM_H

#include "FieldKit/BoundedStream/AbstractStream.h"
#include "os_stream.h"

class CBoundedStream : public CAbstractStream {
public:
    // uBoundedSize 0: unlimited; otherwise the most bytes held at once.
    // uBlockSize: growth step (0 picks the platform's default).
    CBoundedStream(size_t uBoundedSize, size_t uBlockSize)
        : m_hBinaryStreamHandle(binary_stream_create(uBoundedSize, uBlockSize)) {}

    void readObject(void* pBuffer, size_t size) override {
        checkStorageResult(binary_stream_read(m_hBinaryStreamHandle, pBuffer, size));
    }
    void writeObject(const void* pBuffer, size_t size) override {
        checkStorageResult(binary_stream_write(m_hBinaryStreamHandle, pBuffer, size));
    }
    size_t getLength() override { return binary_stream_get_length(m_hBinaryStreamHandle); }
    bool enoughReadable(size_t size) override {
        return binary_stream_enough_readable(m_hBinaryStreamHandle, size);
    }
    bool enoughWritable(size_t size) override {
        return binary_stream_enough_writable(m_hBinaryStreamHandle, size);
    }

    virtual ~CBoundedStream() { binary_stream_destroy(&m_hBinaryStreamHandle); }

private:
    binary_stream_handle* m_hBinaryStreamHandle;  // owned
};

class CCacheStream : public CAbstractStream {
public:
    // uCacheSize 0: no memory of its own, nothing can be stored until a
    // buffer is attached (what every frame reader does).
    explicit CCacheStream(size_t uCacheSize)
        : m_hCacheStreamHandle(cache_stream_create(uCacheSize)) {}

    // Puts the stream over the caller's `size` bytes at pBuffer, empty: to
    // parse bytes already there, writeObject(pBuffer, size) marks them as
    // written. False for a null buffer with a non-zero size.
    bool attach(char* pBuffer, size_t size) {
        return cache_stream_attach(m_hCacheStreamHandle, pBuffer, size);
    }
    // Ends the attachment: returns the caller's buffer (null if none) and the
    // number of bytes written into it.
    char* detach(size_t& size) { return cache_stream_detach(m_hCacheStreamHandle, &size); }

    void readObject(void* pBuffer, size_t size) override {
        checkStorageResult(cache_stream_read(m_hCacheStreamHandle, pBuffer, size));
    }
    void writeObject(const void* pBuffer, size_t size) override {
        checkStorageResult(cache_stream_write(m_hCacheStreamHandle, pBuffer, size));
    }
    size_t getLength() override { return cache_stream_get_length(m_hCacheStreamHandle); }
    bool enoughReadable(size_t size) override {
        return cache_stream_enough_readable(m_hCacheStreamHandle, size);
    }
    bool enoughWritable(size_t size) override {
        return cache_stream_enough_writable(m_hCacheStreamHandle, size);
    }

    virtual ~CCacheStream() { cache_stream_destroy(&m_hCacheStreamHandle); }

private:
    cache_stream_handle* m_hCacheStreamHandle;  // owned; the attached memory is not
};

#endif
