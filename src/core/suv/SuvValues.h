// Reading the values the SUV code works on: DICOM attributes of a volume's
// parameters, and the keys of its "SUV" bundle, which hold numbers as text.
#pragma once

#include <mdxlib/platform/HxParamBundle.h>

#include <QDateTime>

#include <string>

namespace suv {

constexpr char kBundle[] = "SUV";

// The bundle that holds the DICOM attributes: "DICOM", else params itself.
HxParamBundle const* dicom(HxParamBundle const& params);
// The attribute's text, or empty.
std::string tagText(HxParamBundle const& params, uint16_t group, uint16_t element);
// text without leading and trailing spaces.
std::string unpad(std::string const& text);
// The value of key as text; false when absent.
bool findText(HxParamBundle const* bundle, char const* key, std::string& out);
// The value of key read as a number the way atof reads it; false when absent.
bool findNumber(HxParamBundle const* bundle, char const* key, double& out);
// "YYYYMMDDHHMMSS" (at least) as a local date-time; false when it doesn't
// scan into six fields or names no valid local time.
bool scanDateTime(std::string const& text, QDateTime& out);

} // namespace suv
