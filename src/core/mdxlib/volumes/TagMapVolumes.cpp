// The volumes of a series node.
#include <mdxlib/tags/TagMap.h>

#include <mdxlib/platform/LmMsg.h>
#include <mdxlib/volumes/Volume.h>

namespace Mdx {

void TagMap::addBareVolume(Volume* volume)
{
    mVolumes.append(volume);
    volume->setImages(QVector<TagMap*>(), this);
}

void TagMap::clearVolumes()
{
    if (mVolumes.isEmpty())
        return;
    qDeleteAll(mVolumes);
    mVolumes.clear();
    for (TagMap* child : qAsConst(mChildren))
        child->deleteElement(Tags::VolumeIndices);
}

void TagMap::deserializeVolumes(LmMsg& in, QList<QByteArray> const& previews)
{
    int const count = readLength(in);
    QList<Volume*> read;
    for (int i = 0; i < count && !in.failed(); ++i) {
        int const length = readLength(in);
        char const* bytes = in.readRawBytes(static_cast<size_t>(length));
        if (!bytes)
            break;
        LmMsg block;
        block.setRawData(bytes, static_cast<size_t>(length));
        auto* volume = new Volume(i);
        volume->deserialize(block, previews, mChildren.size());
        if (block.failed())
            in.markFailed(); // a damaged volume block makes the whole list suspect
        read.append(volume);
        mVolumes.append(volume);
    }

    // Each image names the volumes it belongs to.
    QVector<QVector<TagMap*>> members(read.size());
    for (TagMap* child : qAsConst(mChildren)) {
        TagElement const* indices = child->findElement(Tags::VolumeIndices);
        if (!indices)
            continue;
        int const fields = indices->numFields();
        for (int f = 0; f < fields; ++f) {
            bool ok = false;
            int const index = indices->valueAsInt(&ok, f);
            if (ok && index >= 0 && index < read.size())
                members[index].append(child);
        }
    }
    for (int i = 0; i < read.size(); ++i)
        read[i]->setImages(members[i], this);
}

} // namespace Mdx
