// The bridge between DICOM parsing and every source of objects: local files,
// file servers, HTTP and cloud URLs, members of containers.
//
// For now the loader's process-wide settings: the default mode for paths
// that are no URL, and the switch that sends URLs through the cloud reader
// (the key "Enabled" of cloud-reader.xml sets it). Callers set them at
// start-up; they are atomics, so that a configuration read on any thread
// never races with a loader reading them.
#pragma once

#include <mdxlib/Export.h>

class MDX_EXPORT LmDcmFileLoader
{
public:
    enum Mode
    {
        MODE_DEFAULT = 0,      // the process default
        MODE_FILE = 1,         // a plain file stream
        MODE_SUSPEND_FILE = 2, // a suspendable file stream, whole values at once
        MODE_HTTP = 3,         // the file server over HTTP
        MODE_CLOUD = 4         // the cloud reader
    };

    // Each stores the new value and returns the old one.
    static Mode setDefaultMode(Mode mode);
    static bool setCloudReaderEnabled(bool enabled);
    static Mode defaultMode();
    static bool cloudReaderEnabled();
};
