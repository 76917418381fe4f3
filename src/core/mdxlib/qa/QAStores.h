// The three stores QA records are applied to, each behind QACache::TagGetSet.
#pragma once

#include <mdxlib/qa/QACache.h>

#include <memory>

class DcmDataset;
class HxParamBundle;

namespace Mdx {

class TagMap;

// Over a DCMTK dataset; private values reserve their block as needed.
std::unique_ptr<QACache::TagGetSet> makeDatasetStore(DcmDataset& dataset);
// Over one tag map node, written at that node.
std::unique_ptr<QACache::TagGetSet> makeTagMapStore(TagMap& map);
// Over the DICOM values a parameter bundle holds for all images.
std::unique_ptr<QACache::TagGetSet> makeParamBundleStore(HxParamBundle& bundle);

} // namespace Mdx
