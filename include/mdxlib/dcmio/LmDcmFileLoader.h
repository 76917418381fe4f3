// The bridge between DICOM parsing and every source of objects: local files,
// file servers, HTTP and cloud URLs, members of containers.
//
// LmDcmFileLoader stands in for DcmFileFormat::loadFile. One path string may
// name a local file, a file-server path ("/Storage/host/..." or
// "//host/..."), an HTTP or cloud URL, or a member of a ".kz" container; a
// trailing "?QA=<n>" asks for the corrections of QA record n. The loader
// picks a stream for the path, lets its DcmFileFormat parse from it, applies
// the QA corrections and remembers how far the stream was read. A loader is
// used for one object; it holds no stream once loadFile returns.
//
// The process-wide settings (the default mode for paths that are no URL, and
// the switch that sends URLs through the cloud reader, set from the key
// "Enabled" of cloud-reader.xml) are atomics, so that a configuration read on
// any thread never races with a loader reading them.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/LmSessionContextID.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcfilefo.h"

#include <cstdint>
#include <string>

class DcmInputStream;

class MDX_EXPORT LmDcmFileLoader
{
public:
    enum Mode
    {
        MODE_DEFAULT = 0,      // the process default
        MODE_FILE = 1,         // a plain file stream, honouring the maximum read length
        MODE_SUSPEND_FILE = 2, // a suspendable file stream, whole values at once
        MODE_HTTP = 3,         // the file server over HTTP, with a bearer token
        MODE_CLOUD = 4         // the cloud reader
    };

    // What a read callback answers for each top-level element of the
    // dataset, as soon as its tag and length are known.
    enum ReadResult
    {
        READ_CONTINUE = 0, // keep the element and go on
        READ_STOP = 1      // end the read before this element: it and what follows are not kept
    };
    using ReadCallback = ReadResult (*)(DcmTag const& tag, unsigned int const& length);

    explicit LmDcmFileLoader(Mode mode = MODE_DEFAULT);
    virtual ~LmDcmFileLoader();
    LmDcmFileLoader(LmDcmFileLoader const&) = delete;
    LmDcmFileLoader& operator=(LmDcmFileLoader const&) = delete;

    // Loads the object a path names. readMode is accepted and ignored; the
    // maximum read length is honoured by MODE_FILE alone, the one road whose
    // stream can be reopened for values left unread. A bad condition leaves
    // no QA applied.
    OFCondition loadFile(OFFilename const& fileName, E_TransferSyntax readXfer = EXS_Unknown,
                         E_GrpLenEncoding groupLength = EGL_noChange,
                         unsigned int maxReadLength = DCM_MaxReadLength,
                         E_FileReadMode readMode = ERM_autoDetect, ReadCallback callback = nullptr);
    // Parses from a stream the caller made; position becomes its tell().
    OFCondition read(DcmInputStream& stream, E_TransferSyntax readXfer = EXS_Unknown,
                     E_GrpLenEncoding groupLength = EGL_noChange,
                     unsigned int maxReadLength = DCM_MaxReadLength);
    OFCondition validateMetaInfo(E_TransferSyntax xfer, E_FileWriteMode writeMode = EWM_fileformat);
    DcmMetaInfo* getMetaInfo();
    DcmDataset* getDataset();
    DcmFileFormat& fileFormat() { return mFileFormat; }
    // Loads the encapsulated pixel items a lazy parse left in the stream,
    // then lets the stream go.
    OFCondition readUntilEnd();

    Mode mode() const { return mMode; }
    // The stream position after the last read.
    int64_t position() const { return mPosition; }

    // Each stores the new value and returns the old one.
    static Mode setDefaultMode(Mode mode);
    static bool setCloudReaderEnabled(bool enabled);
    static Mode defaultMode();
    static bool cloudReaderEnabled();
    // The mode for a reader that wants values above its maximum read length
    // left on disk (headers, omitted values): the plain file stream, the one
    // road that honours that length, where the default is the suspendable
    // local file; otherwise the default, as a path may then not be local.
    static Mode leaveLargeValuesMode();

    // A file-server path ("/Storage/host/..." or "//host/...", backslashes
    // allowed) becomes "http://host:<port>/..." in place; false, with path
    // untouched, for anything else.
    static bool convertPathToURL(std::string& path);
    // The URL under which a client outside reaches the same object through
    // the web service; empty when the path names no such object.
    static std::string convertPathToExternalURL(char const* path);

    // The session on whose behalf container members are opened; -1: none.
    LmSessionContextID sessionContext = kNoSessionContext;

private:
    OFCondition readStream(DcmInputStream& stream, E_TransferSyntax readXfer, E_GrpLenEncoding groupLength,
                           unsigned int maxReadLength, ReadCallback callback);
    // Empties meta header and dataset: a failed transfer adds nothing.
    void dropAll();

    Mode mMode;
    DcmFileFormat mFileFormat;
    int64_t mPosition = 0;
};
