#include <mdxlib/platform/HxParameter.h>

#include <cstdio>
#include <cstdlib>
#include <utility>

HxParameter::HxParameter(std::string name, std::string text)
    : mName(std::move(name))
    , mType(Type::Text)
    , mText(std::move(text))
{
}

HxParameter::HxParameter(std::string name, std::vector<int> const& values)
    : mName(std::move(name))
    , mType(Type::Int)
    , mNumbers(values.begin(), values.end())
{
}

HxParameter::HxParameter(std::string name, std::vector<double> values)
    : mName(std::move(name))
    , mType(Type::Real)
    , mNumbers(std::move(values))
{
}

int HxParameter::dim() const
{
    return mType == Type::Text ? 1 : static_cast<int>(mNumbers.size());
}

std::string HxParameter::getString() const
{
    if (mType == Type::Text)
        return mText;
    std::string text;
    for (size_t i = 0; i < mNumbers.size(); ++i) {
        if (i > 0)
            text += '\\';
        char buffer[32];
        if (mType == Type::Int)
            std::snprintf(buffer, sizeof buffer, "%d", static_cast<int>(mNumbers[i]));
        else
            std::snprintf(buffer, sizeof buffer, "%.17g", mNumbers[i]);
        text += buffer;
    }
    return text;
}

double HxParameter::getReal(int i) const
{
    if (mType == Type::Text) {
        // Field i of a multi-valued text.
        size_t start = 0;
        for (int field = 0; field < i; ++field) {
            start = mText.find('\\', start);
            if (start == std::string::npos)
                return 0.0;
            ++start;
        }
        return std::atof(mText.c_str() + start);
    }
    return i >= 0 && i < static_cast<int>(mNumbers.size()) ? mNumbers[static_cast<size_t>(i)] : 0.0;
}

int HxParameter::getNum(int i) const
{
    return static_cast<int>(getReal(i));
}
