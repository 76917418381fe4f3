// The text form of bulk data references, both ways.
#include <mdxlib/json/BulkDataUri.h>

#include <QList>
#include <QUrl>

#include <cstdio>

namespace Mdx {

namespace {

constexpr char kMarker[] = "#bulk=";
constexpr char kStudies[] = "studies/";
constexpr char kFile[] = "file:";

QByteArray tagText(DcmTagKey const& tag)
{
    char text[9];
    std::snprintf(text, sizeof text, "%04X%04X", tag.getGroup(), tag.getElement());
    return QByteArray(text, 8);
}

std::optional<DcmTagKey> parseTag(QByteArray const& text)
{
    if (text.size() != 8)
        return std::nullopt;
    for (char const c : text) {
        if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F')))
            return std::nullopt;
    }
    bool ok = false;
    uint const value = text.toUInt(&ok, 16);
    return DcmTagKey(static_cast<Uint16>(value >> 16), static_cast<Uint16>(value & 0xffff));
}

std::optional<int> parseItem(QByteArray const& text)
{
    if (text.isEmpty() || text.size() > 9)
        return std::nullopt;
    for (char const c : text) {
        if (c < '0' || c > '9')
            return std::nullopt;
    }
    return text.toInt();
}

// A URL as stored, but for bytes a URL cannot hold as they are (controls,
// space, anything above 0x7E), which are percent-encoded. What a URL
// already encodes stays as it is, so a well-formed URL is unchanged.
QByteArray printableUrl(QByteArray const& url)
{
    QByteArray out;
    out.reserve(url.size());
    for (char const c : url) {
        auto const byte = static_cast<unsigned char>(c);
        if (byte > 0x20 && byte < 0x7f) {
            out += c;
        } else {
            char escaped[4];
            std::snprintf(escaped, sizeof escaped, "%%%02X", byte);
            out.append(escaped, 3);
        }
    }
    return out;
}

bool isUrl(QByteArray const& location)
{
    return location.contains("://");
}

} // namespace

QByteArray BulkDataUri::toUri() const
{
    QByteArray uri;
    if (object.isEmpty())
        uri = kStudies + studyUID + "/series/" + seriesUID + "/instances/" + sopInstanceUID;
    else if (!isUrl(object) && object.startsWith('/'))
        uri = QUrl::fromLocalFile(QString::fromUtf8(object.constData(), object.size())).toEncoded();
    else {
        uri = isUrl(object)
                  ? printableUrl(object)
                  : QUrl::toPercentEncoding(QString::fromUtf8(object.constData(), object.size()), "/");
        // A text that reads like the instance form or a file URI keeps its
        // first letter encoded, so that the forms never meet.
        if (uri.startsWith(kStudies) || uri.startsWith(kFile))
            uri.replace(0, 1, uri.startsWith(kFile) ? "%66" : "%73");
    }
    uri += kMarker;
    for (size_t i = 0; i < path.size(); ++i) {
        if (i > 0)
            uri += '/' + QByteArray::number(path[i - 1].item) + '/';
        uri += tagText(path[i].tag);
    }
    return uri;
}

std::optional<BulkDataUri> BulkDataUri::parse(QByteArray const& uri)
{
    int const at = uri.lastIndexOf(kMarker);
    if (at < 0)
        return std::nullopt;
    BulkDataUri result;
    QList<QByteArray> const parts = uri.mid(at + int(sizeof kMarker) - 1).split('/');
    if (parts.size() % 2 == 0)
        return std::nullopt;
    for (int i = 0; i < parts.size(); i += 2) {
        std::optional<DcmTagKey> const tag = parseTag(parts[i]);
        if (!tag)
            return std::nullopt;
        if (i > 0) {
            std::optional<int> const item = parseItem(parts[i - 1]);
            if (!item)
                return std::nullopt;
            result.path.back().item = *item;
        }
        result.path.push_back({*tag, -1});
    }
    QByteArray const location = uri.left(at);
    if (location.startsWith(kStudies)) {
        QList<QByteArray> const names = location.split('/');
        if (names.size() != 6 || names[2] != "series" || names[4] != "instances")
            return std::nullopt;
        result.studyUID = names[1];
        result.seriesUID = names[3];
        result.sopInstanceUID = names[5];
    } else if (location.startsWith(kFile)) {
        result.object = QUrl::fromEncoded(location).toLocalFile().toUtf8();
    } else if (isUrl(location)) {
        result.object = location;
        if (location.startsWith("%73") || location.startsWith("%66"))
            result.object.replace(0, 3, location.startsWith("%73") ? "s" : "f");
    } else {
        result.object = QByteArray::fromPercentEncoding(location);
    }
    if (result.object.isEmpty() && result.sopInstanceUID.isEmpty())
        return std::nullopt;
    return result;
}

} // namespace Mdx
