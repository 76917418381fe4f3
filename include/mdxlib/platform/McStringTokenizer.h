// Splits a multi-valued DICOM text into its values.
//
// Tokens are separated by backslashes (the DICOM value delimiter) and by
// white space; empty tokens are skipped, so "1\\\\2" and " 1 \\ 2 " both
// give "1" and "2".
#pragma once

#include <mdxlib/Export.h>

#include <string>

class MDX_EXPORT McStringTokenizer
{
public:
    explicit McStringTokenizer(char const* text);

    bool hasMoreTokens() const;
    // The next token; an empty string when none is left.
    std::string nextToken();

private:
    void skipSeparators();

    std::string mText;
    size_t mPos = 0;
};
