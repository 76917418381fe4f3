#include "SuvValues.h"

#include <cstdio>
#include <cstdlib>

namespace suv {

HxParamBundle const* dicom(HxParamBundle const& params)
{
    HxParamBundle const* all = params.dicomAll();
    return all ? all : &params;
}

std::string tagText(HxParamBundle const& params, uint16_t group, uint16_t element)
{
    char const* value = params.findTagInAll(group, element);
    return value ? std::string(value) : std::string();
}

std::string unpad(std::string const& text)
{
    size_t const begin = text.find_first_not_of(' ');
    if (begin == std::string::npos)
        return std::string();
    return text.substr(begin, text.find_last_not_of(' ') - begin + 1);
}

bool findText(HxParamBundle const* bundle, char const* key, std::string& out)
{
    return bundle && bundle->findString(key, out);
}

bool findNumber(HxParamBundle const* bundle, char const* key, double& out)
{
    std::string text;
    if (!findText(bundle, key, text))
        return false;
    out = std::atof(text.c_str());
    return true;
}

bool scanDateTime(std::string const& text, QDateTime& out)
{
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0;
    if (std::sscanf(text.c_str(), "%4d%2d%2d%2d%2d%2d", &year, &month, &day, &hour, &minute, &second) != 6)
        return false;
    QDateTime const value(QDate(year, month, day), QTime(hour, minute, second), Qt::LocalTime);
    if (!value.isValid())
        return false;
    out = value;
    return true;
}

} // namespace suv
