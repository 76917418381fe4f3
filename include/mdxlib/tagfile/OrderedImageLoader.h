// Loading many DICOM headers on several threads while the study trees take
// the images one by one, in the order the files were given.
//
// Parsing a header is nearly all of the cost of building a tag file and
// each file parses on its own, so the parse runs on worker threads. Merging
// into a tree must stay on one thread and in file order: the tree, and so
// the tag file written from it, is then byte for byte what a single thread
// makes.
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/tagfile/TagFile.h>

#include <QByteArray>

#include <functional>
#include <memory>
#include <vector>

namespace Mdx {

class TagMap;

// Loads each of paths with TagFile::loadImage on `jobs` threads (1 or less:
// on the calling thread alone) and calls consume on the calling thread for
// every path, in order, with the flat image (null when the file gave none)
// and the reason. Files that are not regular files (FIFOs, devices,
// sockets) are not opened: they count as unreadable. At most a bounded
// window of images waits ahead of consume, so memory stays flat on large
// inputs. consume takes ownership of the image; returning false stops the
// load (the remaining results are dropped).
MDX_EXPORT void loadImagesInOrder(
    std::vector<QByteArray> const& paths, int jobs,
    std::function<bool(int index, std::unique_ptr<TagMap> image, TagFile::AddResult result)> const& consume);

// The number of worker threads that suits this machine: its cores.
MDX_EXPORT int defaultLoadJobs();

} // namespace Mdx
