#include <mdxlib/platform/McStringTokenizer.h>

namespace {

bool isSeparator(char c)
{
    switch (c) {
    case '\\':
    case ' ':
    case '\t':
    case '\n':
    case '\r':
    case '\f':
    case '\v':
        return true;
    default:
        return false;
    }
}

} // namespace

McStringTokenizer::McStringTokenizer(char const* text)
    : mText(text ? text : "")
{
    skipSeparators();
}

bool McStringTokenizer::hasMoreTokens() const
{
    // The position always rests on the start of a token or at the end, so
    // this needs no scan.
    return mPos < mText.size();
}

std::string McStringTokenizer::nextToken()
{
    size_t const begin = mPos;
    while (mPos < mText.size() && !isSeparator(mText[mPos])) {
        ++mPos;
    }
    std::string token = mText.substr(begin, mPos - begin);
    skipSeparators();
    return token;
}

void McStringTokenizer::skipSeparators()
{
    while (mPos < mText.size() && isSeparator(mText[mPos])) {
        ++mPos;
    }
}
