// The encoding rules of the serialisation streams that build and parse every
// structured frame payload. A concrete stream (BoundedStream.h) supplies the
// storage; this class turns values into bytes and back:
//   - integers: their width, big-endian (network order);
//   - bool: one byte, 0 or 1 as written, any non-zero byte reads as true;
//   - strings: a 4-byte big-endian byte count n, then the n bytes, no
//     terminator. A std::string is carried as UTF-8 (converted from and to
//     the local code page); a const char* must be pure ASCII and is carried
//     as it is. Both read back with operator>>(std::string&).
//
// Errors are thrown as a pointer, `new CStreamException(code)`; whoever
// catches it deletes it. A typed operator checks the size first and throws
// NOT_ENOUGH_SPACE before anything is transferred, so the stream's positions
// are unchanged. The one exception is operator>>(std::string&), whose 4-byte
// prefix is consumed before the check of the n bytes that it announces.
//
// A stream is used by one thread, normally on the stack of the function that
// builds or parses one payload. Streams are not copyable.
#ifndef FIELDKIT_BOUNDEDSTREAM_ABSTRACTSTREAM_H
#define FIELDKIT_BOUNDEDSTREAM_ABSTRACTSTREAM_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "FieldKit/Environment/EndianType.h"
#include "GroundKit/Base/BaseType.h"
#include "GroundKit/OS/OS_CLibrary.h"
#include "GroundKit/OS/OS_UTF8Helper.h"

class CAbstractStream {
public:
    class CStreamException {
    public:
        static constexpr int32_t OPERATE_SUCCEED = 0;         // never thrown
        static constexpr int32_t IGNORE_OPERATE_ERROR = -1;   // never thrown; a storage
                                                              // result of -1 counts as success
        static constexpr int32_t INNER_CRITICAL_ERROR = -2;   // the byte store failed
        static constexpr int32_t NOT_ENOUGH_SPACE = -3;       // too little room or data
        static constexpr int32_t UNEXPECTED_VALUE_ERROR = -4; // const char* not pure ASCII

        explicit CStreamException(int32_t iExceptionCode) : m_iExceptionCode(iExceptionCode) {}

        int32_t m_iExceptionCode;
    };

    CAbstractStream() = default;
    CAbstractStream(const CAbstractStream&) = delete;
    CAbstractStream& operator=(const CAbstractStream&) = delete;

    // Copies `size` bytes out of the stream and consumes them. Throws the
    // storage's INNER_CRITICAL_ERROR or NOT_ENOUGH_SPACE.
    virtual void readObject(void* pBuffer, size_t size) = 0;
    // Appends `size` bytes. Throws as readObject.
    virtual void writeObject(const void* pBuffer, size_t size) = 0;
    // Bytes in the stream and not yet read.
    virtual size_t getLength() = 0;
    // At least `size` unread bytes are present.
    virtual bool enoughReadable(size_t size) = 0;
    // `size` more bytes can be appended.
    virtual bool enoughWritable(size_t size) = 0;

    CAbstractStream& operator<<(CHAR value) { return writeValue(value); }
    CAbstractStream& operator<<(BYTE value) { return writeValue(value); }
    CAbstractStream& operator<<(SHORT value) { return writeValue(value); }
    CAbstractStream& operator<<(USHORT value) { return writeValue(value); }
    CAbstractStream& operator<<(INT value) { return writeValue(value); }
    CAbstractStream& operator<<(UINT value) { return writeValue(value); }
    CAbstractStream& operator<<(LONG value) { return writeValue(value); }
    CAbstractStream& operator<<(ULONG value) { return writeValue(value); }
    CAbstractStream& operator<<(LONGLONG value) { return writeValue(value); }
    CAbstractStream& operator<<(ULONGLONG value) { return writeValue(value); }
    CAbstractStream& operator<<(FLOAT value) { return writeValue(bitsOf<uint32_t>(value)); }
    CAbstractStream& operator<<(DOUBLE value) { return writeValue(bitsOf<uint64_t>(value)); }
    CAbstractStream& operator<<(bool value) {
        const unsigned char byte = value ? 1 : 0;
        return writeValue(byte);
    }
    // The text is converted to UTF-8 first; the prefix counts converted bytes.
    CAbstractStream& operator<<(const std::string& value) {
        // ASCII reads the same in every code page the conversion knows, so
        // the common case (URLs) skips it.
        if (OS::CLibrary::String::isAsciiText(value.data(), value.size())) return writeText(value.data(), value.size());
        const std::string utf8 = OS::UTF8Helper::oemToUTF8(value);
        return writeText(utf8.data(), utf8.size());
    }
    // Throws UNEXPECTED_VALUE_ERROR, writing nothing, when the text has a
    // byte of 0x80 or above; a null pointer counts as not ASCII.
    CAbstractStream& operator<<(const char* value) {
        if (value == nullptr || !OS::CLibrary::String::isAscii(value)) {
            throwException(CStreamException::UNEXPECTED_VALUE_ERROR);
        }
        return writeText(value, std::strlen(value));
    }

    CAbstractStream& operator>>(CHAR& value) { return readValue(value); }
    CAbstractStream& operator>>(BYTE& value) { return readValue(value); }
    CAbstractStream& operator>>(SHORT& value) { return readValue(value); }
    CAbstractStream& operator>>(USHORT& value) { return readValue(value); }
    CAbstractStream& operator>>(INT& value) { return readValue(value); }
    CAbstractStream& operator>>(UINT& value) { return readValue(value); }
    CAbstractStream& operator>>(LONG& value) { return readValue(value); }
    CAbstractStream& operator>>(ULONG& value) { return readValue(value); }
    CAbstractStream& operator>>(LONGLONG& value) { return readValue(value); }
    CAbstractStream& operator>>(ULONGLONG& value) { return readValue(value); }
    CAbstractStream& operator>>(FLOAT& value) { return readBits<uint32_t>(value); }
    CAbstractStream& operator>>(DOUBLE& value) { return readBits<uint64_t>(value); }
    CAbstractStream& operator>>(bool& value) {
        unsigned char byte = 0;
        readValue(byte);
        value = byte != 0;  // never load a bool from a byte other than 0 or 1
        return *this;
    }
    // The bytes are converted from UTF-8 to the local code page. A prefix
    // announcing more than the remainder throws NOT_ENOUGH_SPACE with the
    // prefix consumed and `value` unchanged.
    CAbstractStream& operator>>(std::string& value) {
        UINT length = 0;
        readValue(length);
        if (!enoughReadable(length)) throwException(CStreamException::NOT_ENOUGH_SPACE);
        std::string utf8(length, '\0');
        if (length != 0) readObject(&utf8[0], length);
        if (OS::CLibrary::String::isAsciiText(utf8.data(), utf8.size()))
            value.swap(utf8);  // the same in every code page: no conversion
        else
            value = OS::UTF8Helper::oemFromUTF8(utf8.c_str());
        return *this;
    }

protected:
    // Not virtual: streams are never deleted through this class.
    ~CAbstractStream() = default;

    [[noreturn]] static void throwException(int32_t iCode) { throw new CStreamException(iCode); }

    // The concrete streams' readObject/writeObject pass their storage result
    // here: -2 and -3 are thrown, everything else (-1 included) is success.
    static void checkStorageResult(int iResult) {
        if (iResult == CStreamException::INNER_CRITICAL_ERROR ||
            iResult == CStreamException::NOT_ENOUGH_SPACE) {
            throwException(iResult);
        }
    }

private:
    template <class T>
    CAbstractStream& writeValue(T value) {
        if (!enoughWritable(sizeof value)) throwException(CStreamException::NOT_ENOUGH_SPACE);
        CEndianType::hostToNetwork(value);
        writeObject(&value, sizeof value);
        return *this;
    }

    template <class T>
    CAbstractStream& readValue(T& value) {
        if (!enoughReadable(sizeof value)) throwException(CStreamException::NOT_ENOUGH_SPACE);
        T wire;
        readObject(&wire, sizeof wire);
        value = CEndianType::networkToHost(wire);
        return *this;
    }

    // Floating-point values travel as their bit patterns, swapped as integers
    // so that no swapped pattern is ever held in a floating-point variable.
    template <class Bits, class F>
    static Bits bitsOf(F value) {
        static_assert(sizeof(Bits) == sizeof(F), "bit pattern width");
        Bits bits;
        std::memcpy(&bits, &value, sizeof bits);
        return bits;
    }
    template <class Bits, class F>
    CAbstractStream& readBits(F& value) {
        Bits bits = 0;
        readValue(bits);
        std::memcpy(&value, &bits, sizeof value);
        return *this;
    }

    CAbstractStream& writeText(const char* pText, size_t length) {
        // The prefix is 32 bits wide; longer text cannot be encoded.
        if (length > UINT32_MAX || !enoughWritable(length + 4)) {
            throwException(CStreamException::NOT_ENOUGH_SPACE);
        }
        UINT prefix = static_cast<UINT>(length);
        CEndianType::hostToNetwork(prefix);
        writeObject(&prefix, sizeof prefix);
        writeObject(pText, length);
        return *this;
    }
};

#endif
