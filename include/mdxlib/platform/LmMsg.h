// A growing byte buffer for wire and file forms.
//
// A message is written at its end and read from a read position. All
// primitives are little-endian whatever the machine: unsigned char 1 byte,
// unsigned short 2, int and unsigned int 4, float 4 (IEEE 754 bits). A text
// is an unsigned int byte count followed by the bytes. McVec3i is three ints;
// McBox3f six floats (min x, y, z, then max x, y, z); McBox3i six ints in the
// same order; McMat4f sixteen floats, row by row.
//
// Raw byte helpers (writeRawBytes, readRawBytes) copy bytes as they are.
//
// Reads are bounds-checked: reading past the end never touches memory
// outside the buffer. It yields zeros (an empty text, a null pointer from
// readRawBytes), consumes what was left and marks the message as failed, so
// that corrupt input ends in an error and not in a crash.
//
// A message owns its bytes, or lies over bytes owned by someone else
// (constructor over data, setRawData); such a message is for reading only.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/McBox3f.h>
#include <mdxlib/platform/McMat4f.h>
#include <mdxlib/platform/McVec3i.h>

#include <QByteArray>

#include <cstddef>
#include <cstdint>

class MDX_EXPORT LmMsg
{
public:
    LmMsg() = default;
    // A read-only view over size bytes at data; they must outlive the message.
    LmMsg(char const* data, size_t size);

    // Empties the message and makes it writable again: size bytes of zeros
    // (usually 0) and room reserved for capacity bytes.
    void reset(size_t size = 0, size_t capacity = 0);
    // A read-only view over foreign bytes, read position at 0.
    void setRawData(char const* data, size_t size);

    char const* dataPtr() const { return mData; }
    size_t size() const { return mSize; }
    size_t readPosition() const { return mRead; }
    size_t bytesAvailable() const { return mSize - mRead; }
    bool failed() const { return mFailed; }
    // For readers that find the bytes inconsistent at a higher level (a
    // nesting too deep, a count that cannot be right): the message then
    // reads as failed, like one read past its end.
    void markFailed() { mFailed = true; }

    void writeRawBytes(void const* data, size_t count);
    // A pointer to the next count bytes, which are consumed; null (and the
    // message failed) when fewer are left.
    char const* readRawBytes(size_t count);
    // Copies count bytes into target; zeros and failure when fewer are left.
    bool readRawBytes(void* target, size_t count);

    LmMsg& operator<<(unsigned char v);
    LmMsg& operator<<(unsigned short v);
    LmMsg& operator<<(int v);
    LmMsg& operator<<(unsigned int v);
    LmMsg& operator<<(float v);
    LmMsg& operator<<(QByteArray const& text);
    LmMsg& operator<<(McVec3i const& v);
    LmMsg& operator<<(McBox3f const& b);
    LmMsg& operator<<(McBox3i const& b);
    LmMsg& operator<<(McMat4f const& m);

    LmMsg& operator>>(unsigned char& v);
    LmMsg& operator>>(unsigned short& v);
    LmMsg& operator>>(int& v);
    LmMsg& operator>>(unsigned int& v);
    LmMsg& operator>>(float& v);
    LmMsg& operator>>(QByteArray& text);
    LmMsg& operator>>(McVec3i& v);
    LmMsg& operator>>(McBox3f& b);
    LmMsg& operator>>(McBox3i& b);
    LmMsg& operator>>(McMat4f& m);

private:
    void ensureWritable(size_t extra);
    template <typename T> void writeLittle(T value);
    template <typename T> T readLittle();

    QByteArray mOwned;           // storage when the message owns its bytes
    char const* mData = nullptr; // start of the bytes (owned or foreign)
    size_t mSize = 0;
    size_t mRead = 0;
    bool mForeign = false;
    bool mFailed = false;
};
