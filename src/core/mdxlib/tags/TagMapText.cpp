// Text access to tag maps: attributes addressed by a path through sequence
// items, and dumps for diagnostics.
#include <mdxlib/tags/TagMap.h>
#include <mdxlib/tags/TagNames.h>
#include <mdxlib/tags/TagSequence.h>

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dcdicent.h"
#include "dcmtk/dcmdata/dcdict.h"
#include "dcmtk/dcmdata/dcvr.h"

#include <QString>
#include <QStringList>
#include <QTextStream>

#include <cstdio>
#include <cstdlib>

namespace Mdx {

namespace {

// Columns of a dump line after the VR: a bracketed text is padded to 40 so
// that the "#" lines up with the 42 of an unbracketed one.
constexpr int kStringWidth = 40;
constexpr int kOtherWidth = 42;
// Texts from 61 characters on would push the comment far to the right; 58
// kept plus "..." still shows that something was cut.
constexpr int kLongText = 61;
constexpr int kKeptText = 58;

// Which view a walk prints: what a reader sees (inherited attributes,
// decoded private data) or what the node itself stores (markers included).
enum class View
{
    Inherited,
    Own
};

// How a walk prints: the view, and whether long values are cut.
struct Style
{
    View view;
    bool fullValues;
};

void writeBlanks(QTextStream& stream, int count)
{
    if (count > 0)
        stream << QString(count, QLatin1Char(' '));
}

void writeKey(QTextStream& stream, int indent, DcmTagKey const& key)
{
    char text[16];
    std::snprintf(text, sizeof text, "(%04x,%04x) ", key.getGroup(), key.getElement());
    writeBlanks(stream, indent);
    stream << text;
}

QByteArray truncated(QByteArray text)
{
    if (text.size() >= kLongText) {
        text.truncate(kKeptText);
        text.append("...");
    }
    return text;
}

char const* vrText(VR vr)
{
    DcmEVR const evr = toDcmEVR(vr);
    // DCMTK names no VR for the codes it lacks; ours does.
    if (evr == EVR_UNKNOWN)
        return vrName(vr);
    return DcmVR(evr).getVRName();
}

// The system's own private data is stored compressed or base64 encoded;
// dumping the raw bytes would hide exactly what one looks for, so these
// values are shown decoded and in full. Empty when nothing applies.
QByteArray decodedLumoraText(DcmTagKey const& key, char const* creator, TagElement const& element)
{
    if (key.getGroup() != 0x0071 || !creator || qstrcmp(creator, "Lumora") != 0)
        return QByteArray();
    switch (key.getElement()) {
    case 0x1062:
    case 0x1064:
    case 0x1083:
        return qUncompress(element.mValue);
    case 0x1021:
        return QByteArray::fromBase64(element.mValue);
    default:
        return QByteArray();
    }
}

void writeNode(TagMap const& node, QTextStream& stream, int indent, DcmDataDictionary const& dict,
               Style style);

void writeSequence(TagSequence const& sequence, QTextStream& stream, int indent,
                   DcmDataDictionary const& dict, Style style)
{
    int const itemIndent = qMax(indent + 2, 1);
    for (TagMap const* item : sequence.mItems) {
        writeBlanks(stream, itemIndent);
        stream << "(fffe,e000)\n";
        if (item)
            writeNode(*item, stream, indent + 4, dict, style);
        writeBlanks(stream, itemIndent);
        stream << "(fffe,e00d)\n";
    }
    writeBlanks(stream, indent);
    stream << "(fffe,e0dd)\n";
}

void writeElement(TagMap const& node, DcmTagKey const& key, TagElement const& element, QTextStream& stream,
                  int indent, DcmDataDictionary const& dict, Style style)
{
    writeKey(stream, indent, key);
    char const* creator = node.privateCreator(key);
    DcmDictEntry const* entry = dict.findEntry(key, creator);
    char const* name = entry ? entry->getTagName() : reservedTagName(key);
    if (!name)
        name = "";

    if (auto const* sequence = dynamic_cast<TagSequence const*>(&element)) {
        stream << "SQ";
        writeBlanks(stream, kOtherWidth + 1);
        stream << "# 0 " << name << '\n';
        writeSequence(*sequence, stream, indent, dict, style);
        return;
    }
    if (style.view == View::Own && element.isMissingMarker()) {
        stream << "--";
        writeBlanks(stream, kOtherWidth + 1);
        stream << "# 0 " << name << '\n';
        return;
    }

    QByteArray text;
    if (style.view == View::Inherited)
        text = decodedLumoraText(key, creator, element);
    if (text.isEmpty()) {
        // The dictionary lock is already held here, so resolve a UN value's
        // VR from the entry in hand rather than through the element, which
        // would lock the dictionary a second time.
        VR vr = element.mVR;
        if (vr == VR_UN && entry)
            vr = fromDcmEVR(entry->getEVR());
        element.getValueAsString(text, vr);
        if (!style.fullValues)
            text = truncated(text);
    }

    stream << (element.isOmittedMarker() ? ".." : vrText(element.mVR)) << ' ';
    if (DcmVR(toDcmEVR(element.mVR)).isaString()) {
        stream << '[' << text << ']';
        writeBlanks(stream, kStringWidth - text.size());
    } else {
        stream << text;
        writeBlanks(stream, kOtherWidth - text.size());
    }
    stream << "# " << element.mValue.size() << ' ' << name << '\n';
}

void writeNode(TagMap const& node, QTextStream& stream, int indent, DcmDataDictionary const& dict,
               Style style)
{
    if (style.view == View::Inherited) {
        for (TagMap::iterator it = node.begin(), last = node.end(); it != last; ++it)
            writeElement(node, it.key(), *it.element(), stream, indent, dict, style);
    } else {
        for (auto it = node.elements().cbegin(); it != node.elements().cend(); ++it) {
            if (it.value())
                writeElement(node, it.key(), *it.value(), stream, indent, dict, style);
        }
    }
}

} // namespace

TagElement* TagMap::findElement(QString const& path, DcmTagKey const& key) const
{
    if (path.isEmpty())
        return findElement(key);
    TagMap const* node = this;
    for (QString const& part : path.split(QLatin1Char('.'), Qt::SkipEmptyParts)) {
        int const bracket = part.indexOf(QLatin1Char('['));
        if (bracket <= 0)
            return nullptr;
        QByteArray const name = part.left(bracket).toUtf8();
        int const index = std::atoi(part.mid(bracket + 1).toUtf8().constData());
        DcmTagKey sequenceKey(0xFFFF, 0xFFFF);
        parseDicomTag(name.constData(), sequenceKey);
        auto const* sequence = dynamic_cast<TagSequence const*>(node->findElement(sequenceKey));
        // A negative index counts as past the end: paths never count from the back.
        if (!sequence || index < 0 || index >= sequence->mItems.size())
            return nullptr;
        node = sequence->mItems[index];
        if (!node)
            return nullptr;
    }
    return node->findElement(key);
}

void TagMap::dump(QTextStream& stream, int indent, bool fullValues) const
{
    DcmDataDictionary const& dict = dcmDataDict.rdlock();
    writeNode(*this, stream, indent, dict, Style{View::Inherited, fullValues});
    dcmDataDict.rdunlock();
}

void TagMap::listContent(QTextStream& stream, int indent, bool fullValues) const
{
    DcmDataDictionary const& dict = dcmDataDict.rdlock();
    writeNode(*this, stream, indent, dict, Style{View::Own, fullValues});
    dcmDataDict.rdunlock();
}

} // namespace Mdx
