// A few bytes of an object at a given offset, fetched by the road that
// costs least: a ranged GET for a URL, a range of the cloud reader for a
// container member or WADO object, pread for a local file.
#pragma once

#include <QByteArray>

#include <string>

// Up to count bytes of the object at path from first on; fewer at its end.
// False when the object could not be read.
bool readObjectRange(std::string const& path, long long first, int count, QByteArray& bytes);
