// What kind of location a path names.
//
// The rules follow the system's URL forms:
//   isUrl        a scheme of two or more characters (letters, digits, '+',
//                '-', '.') followed by "://": "http://", "https://",
//                "s3://", "gs://", "az://", "wa://", "was://", "wr://",
//                "wrs://". One-letter schemes are Windows drive letters
//                ("C:/data"), not URLs.
//   isWado       a URL whose scheme is "wa", "was" (WADO-URI) or "wr", "wrs"
//                (WADO-RS).
//   isInContainer a path or URL with a member inside a ".kz" container:
//                some path element ends in ".kz" and is followed by "/".
#pragma once

#include <mdxlib/Export.h>

class MDX_EXPORT McFilename
{
public:
    static bool isUrl(char const* path);
    static bool isWado(char const* path);
    static bool isInContainer(char const* path);
};
