// The headers the tag-layer tests share: the library's tag model, tag file
// and volumes, DCMTK's data dictionary, Qt's file classes and GoogleTest.
#pragma once

#include "support/TestSupport.h"

#include <mdxlib/platform/LmMsg.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/tagfile/TagFile.h>
#include <mdxlib/tags/TagElement.h>
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/TagMapSerializer.h>
#include <mdxlib/tags/TagSequence.h>
#include <mdxlib/volumes/Volume.h>
#include <mdxlib/volumes/VolumeInfo.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <gtest/gtest.h>

#include <QDataStream>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <algorithm>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <tuple>
#include <utility>
#include <vector>
