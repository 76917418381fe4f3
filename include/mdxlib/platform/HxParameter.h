// One named value of a parameter bundle: a text, or a list of integers or
// reals. DICOM attributes are held as text, as a DICOM reader gives it.
#pragma once

#include <mdxlib/Export.h>

#include <string>
#include <vector>

class MDX_EXPORT HxParameter
{
public:
    enum class Type
    {
        Text,
        Int,
        Real
    };

    HxParameter(std::string name, std::string text);
    HxParameter(std::string name, std::vector<int> const& values);
    HxParameter(std::string name, std::vector<double> values);

    std::string const& name() const { return mName; }
    Type type() const { return mType; }
    // The number of values: 1 for a text.
    int dim() const;
    // The text, or the numbers joined by backslashes.
    std::string getString() const;
    // The stored text; empty for numbers.
    std::string const& text() const { return mText; }
    // Value i as a number; a text is read as a number (0 when it is none).
    double getReal(int i = 0) const;
    int getNum(int i = 0) const;

private:
    std::string mName;
    Type mType;
    std::string mText;
    std::vector<double> mNumbers;
};
