#include <mdxlib/platform/McBitfield.h>

void McBitfield::resize(size_t size)
{
    mSize = size;
    mWords.assign((size + 63) / 64, 0u);
}

void McBitfield::set(size_t i)
{
    if (i < mSize)
        mWords[i >> 6] |= uint64_t{1} << (i & 63);
}

void McBitfield::setRange(size_t first, size_t last)
{
    if (mSize == 0 || first > last || first >= mSize)
        return;
    if (last >= mSize)
        last = mSize - 1;
    size_t const firstWord = first >> 6;
    size_t const lastWord = last >> 6;
    uint64_t const headMask = ~uint64_t{0} << (first & 63);
    uint64_t const tailMask = ~uint64_t{0} >> (63 - (last & 63));
    if (firstWord == lastWord) {
        mWords[firstWord] |= headMask & tailMask;
        return;
    }
    mWords[firstWord] |= headMask;
    for (size_t w = firstWord + 1; w < lastWord; ++w)
        mWords[w] = ~uint64_t{0};
    mWords[lastWord] |= tailMask;
}
