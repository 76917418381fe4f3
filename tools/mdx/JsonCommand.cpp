// mdx json: the DICOM JSON metadata of a study, a series or an image,
// written from the study's tag file.
#include "Commands.h"
#include "Exit.h"
#include "Options.h"
#include "TagFileLookup.h"

#include <mdxlib/json/DicomJsonWriter.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagMap.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdeftag.h"

#include <QFile>

#include <cstdio>

namespace mdxtool {

namespace {

CommandSyntax const& jsonSyntax()
{
    static CommandSyntax const syntax{
        "json",
        "TAGFILE|STUDYUID",
        "Writes the DICOM JSON metadata of every image of the study (as a WADO-RS metadata\n"
        "answer: an array of one object per image) to standard output, from the tag file\n"
        "alone. Values the tag file does not keep (Pixel Data, values over 1 KB) are\n"
        "BulkDataURI references to the image's file and the attribute. Text is converted to\n"
        "UTF-8 by each image's Specific Character Set. The output is streamed.",
        {helpOption(),
         metaOption(),
         {"--series", 0, "UID", "only the images of this series"},
         {"--image", 0, "UID", "only this image (SOP Instance UID)"},
         {"--pretty", 0, nullptr, "indent the JSON"}}};
    return syntax;
}

} // namespace

int jsonCommand(Arguments const& args)
{
    ParsedArguments parsed;
    if (std::optional<int> const done = parseCommand(jsonSyntax(), args, parsed))
        return *done;
    if (parsed.positional.size() != 1)
        return usageError(jsonSyntax(), "one TAGFILE or STUDYUID");
    applyMeta(parsed);

    // The whole tag file is read and checked before the first byte goes
    // out, so that a damaged file leaves no partial document behind.
    Mdx::TagFile file;
    if (std::optional<int> const failed = openTagFile(parsed.positional[0], file))
        return *failed;
    QByteArray const path = file.path().toLocal8Bit();

    Mdx::TagMap const* series = nullptr;
    if (parsed.values.count("--series")) {
        std::string const uid = parsed.value("--series");
        series = file.findSeries(QByteArray::fromStdString(uid));
        if (!series)
            return fail(ExitCode::NothingFound, "no series %s in tag file %s", uid.c_str(), path.constData());
    }
    Mdx::TagMap const* image = nullptr;
    if (parsed.values.count("--image")) {
        std::string const uid = parsed.value("--image");
        image = file.findImage(QByteArray::fromStdString(uid));
        if (!image)
            return fail(ExitCode::NothingFound, "no image %s in tag file %s", uid.c_str(), path.constData());
        if (series && image->parent() != series)
            return fail(ExitCode::NothingFound, "image %s is not in series %s", uid.c_str(),
                        parsed.value("--series").c_str());
    }

    QFile out;
    if (!out.open(1, QIODevice::WriteOnly | QIODevice::Unbuffered))
        return fail(ExitCode::OutputError, "cannot write to standard output");
    Mdx::DicomJsonWriter writer(&out, parsed.has("--pretty"));
    bool const written = image    ? writer.writeImage(image)
                         : series ? writer.writeSeries(series)
                                  : writer.writeStudy(file);
    if (!written)
        return fail(ExitCode::OutputError, "cannot write the JSON to standard output: %s",
                    writer.errorString().toLocal8Bit().constData());
    if (!parsed.has("--pretty"))
        out.write("\n", 1); // a text file ends its last line
    return status(ExitCode::Ok);
}

} // namespace mdxtool
