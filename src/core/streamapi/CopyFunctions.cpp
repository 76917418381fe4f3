// The copy functions of the stream family: a byte copy between any source
// and target (LmStreamCopy), and a DICOM rewrite with QA applied (CopyQA).
#include <mdxlib/streamapi/StreamFunctions.h>

#include "Guarded.h"
#include "TemporaryFile.h"

#include <mdxlib/curl/LmRedact.h>
#include <mdxlib/dcmio/LmDcmFileLoader.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/streamapi/LmStreamCopy.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcmetinf.h"
#include "dcmtk/dcmdata/dcostrmf.h"

#include <cstdio>
#include <string>

namespace {

OFCondition writeFileFormat(DcmMetaInfo& meta, DcmDataset& dataset, DcmOutputFileStream& stream)
{
    E_TransferSyntax const xfer = dataset.getOriginalXfer();
    meta.computeGroupLengthAndPadding(EGL_recalcGL, EPD_noChange, EXS_LittleEndianExplicit,
                                      EET_ExplicitLength, 0, 0, 0);
    dataset.computeGroupLengthAndPadding(EGL_recalcGL, EPD_noChange, xfer, EET_ExplicitLength, 0, 0, 0);
    meta.transferInit();
    OFCondition status = meta.write(stream, EXS_LittleEndianExplicit, EET_ExplicitLength, nullptr);
    meta.transferEnd();
    if (status.good()) {
        dataset.transferInit();
        status = dataset.write(stream, xfer, EET_ExplicitLength, nullptr);
        dataset.transferEnd();
    }
    return status;
}

int copyQA(char const* source, char const* target)
{
    McLogFile* log = getTheLogInstance();
    std::string const shown = lmRedactSecrets(source);
    LmDcmFileLoader loader(LmDcmFileLoader::MODE_DEFAULT);
    OFCondition status =
        loader.loadFile(OFFilename(source), EXS_Unknown, EGL_noChange, 4096, ERM_autoDetect, nullptr);
    if (status.bad()) {
        log->errorf("Could not load %s: %s", shown.c_str(), status.text());
        return 1;
    }
    DcmMetaInfo* meta = loader.getMetaInfo();
    DcmDataset* dataset = loader.getDataset();
    if (!meta || !dataset) {
        log->errorf("No meta info or dataset: %s", shown.c_str());
        return 1;
    }
    status = loader.readUntilEnd();
    if (status.bad()) {
        log->errorf("Could not read until end: %s", shown.c_str());
        return 1;
    }
    // Written under a temporary name and renamed when complete: a failed
    // write must not take an older file of the target's name with it.
    std::string const temporary = createTemporaryBeside(target);
    {
        DcmOutputFileStream stream(temporary.empty() ? target : temporary.c_str());
        if (temporary.empty() || stream.status().bad()) {
            log->errorf("Could not open %s for writing: %s", target,
                        temporary.empty() ? "cannot create a file beside it" : stream.status().text());
            if (!temporary.empty())
                std::remove(temporary.c_str());
            return 1;
        }
        status = writeFileFormat(*meta, *dataset, stream);
        if (status.good()) {
            stream.flush();
            status = stream.status();
        }
    } // closes the file
    if (status.good() && std::rename(temporary.c_str(), target) != 0)
        status = makeOFCondition(OFM_dcmdata, 20, OF_error, "cannot rename the written file into place");
    if (status.bad()) {
        log->errorf("Could not write %s: %s", target, status.text());
        std::remove(temporary.c_str());
        return 1;
    }
    return 0;
}

} // namespace

int CopyWithHashAndSize(char const* source, char const* target, char const* hash, long long size)
{
    return guarded("CopyWithHashAndSize", 1, [&] {
        if (!source || !target)
            return 1;
        LmStreamCopy copy(source, target);
        copy.setExpectedHashAndSize(hash, size);
        return copy.run() == LmStreamCopy::Copied ? 0 : 1;
    });
}

int Copy(char const* source, char const* target)
{
    return CopyWithHashAndSize(source, target, nullptr, 0);
}

int CopyQA(char const* source, char const* target)
{
    return guarded("CopyQA", 1, [&] { return source && target ? copyQA(source, target) : 1; });
}
