// The last bytes a producer delivered, kept so that the parser can put them
// back; shared by the producers whose sources cannot seek.
#pragma once

#include <QByteArray>

#include <cstdint>

class LmDcmPutbackTail
{
public:
    // The parser marks and puts back at most a preamble and its magic word.
    static constexpr int kSize = 132;

    explicit LmDcmPutbackTail(int capacity = kSize)
        : mCapacity(capacity)
    {
    }

    // Copies up to want bytes that were put back; returns how many.
    int64_t serve(char* dest, int64_t want);
    // Records the n bytes of one read call, dest[0..n), after the bytes that
    // serve gave for the same call: the tail becomes the last kSize bytes of
    // everything delivered (kSize unless
    // made larger), not just of this call. A parser that reads a tag
    // in 2-byte pieces and then puts back the whole header needs bytes of
    // several calls.
    void keep(char const* data, int64_t n, int64_t servedThisCall);
    // False when more was put back than the tail holds; the tail is then unusable.
    bool putback(int64_t n);
    bool hasUnread() const { return mIndex < mData.size(); }
    int64_t unread() const { return mData.size() - mIndex; }

private:
    int mCapacity;
    QByteArray mData;
    int64_t mIndex = 0;
};
