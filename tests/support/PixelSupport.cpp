#include "support/PixelSupport.h"
#include "support/TestSupport.h"

#include "dcmtk/config/osconfig.h"
#include "dcmtk/dcmdata/dctk.h"

#include <QProcess>

#include <cmath>

namespace mdxtest {

namespace {

struct Ellipse
{
    double cx, cy, a, b;
};

Ellipse ellipseOf(Mammogram const& mg)
{
    return {mg.chestLeft ? 0.0 : mg.width - 1.0, (mg.height - 1) / 2.0, mg.width * 0.6, mg.height * 0.4};
}

bool inside(Ellipse const& e, int x, int y)
{
    double const dx = (x - e.cx) / e.a;
    double const dy = (y - e.cy) / e.b;
    return dx * dx + dy * dy <= 1.0;
}

DcmItem* addItem(DcmItem& parent, DcmTagKey const& sequence)
{
    DcmItem* item = nullptr;
    parent.findOrCreateSequenceItem(sequence, item, -2);
    return item;
}

} // namespace

std::optional<QByteArray> runOracle(QString const& script, QStringList const& args, QByteArray const& input,
                                    QString* error, bool* skip)
{
    QProcess process;
    process.start(QStringLiteral(MDX_TEST_PYTHON),
                  QStringList{QStringLiteral(MDX_TEST_ORACLES_DIR "/") + script} + args);
    process.write(input);
    process.closeWriteChannel();
    if (!process.waitForFinished(120000) || process.exitStatus() != QProcess::NormalExit) {
        if (error)
            *error = "oracle did not finish: " + process.errorString();
        return std::nullopt;
    }
    if (skip)
        *skip = process.exitCode() == 77;
    if (process.exitCode() != 0) {
        if (error)
            *error = QString::fromLocal8Bit(process.readAllStandardError());
        return std::nullopt;
    }
    return process.readAllStandardOutput();
}

QByteArray oracleImage(QImage const& image, bool grayOnly)
{
    QImage const rgb = image.convertToFormat(QImage::Format_RGB888);
    int const channels = grayOnly ? 1 : 3;
    QByteArray bytes = QByteArray::number(rgb.width()) + ' ' + QByteArray::number(rgb.height()) + ' ' +
                       QByteArray::number(channels) + '\n';
    for (int y = 0; y < rgb.height(); ++y) {
        char const* line = reinterpret_cast<char const*>(rgb.constScanLine(y));
        for (int x = 0; x < rgb.width(); ++x)
            bytes.append(line + 3 * x, channels);
    }
    return bytes;
}

QImage imageFromOracle(QByteArray const& bytes)
{
    int const end = bytes.indexOf('\n');
    QList<QByteArray> const header = bytes.left(end).split(' ');
    if (end < 0 || header.size() != 3)
        return QImage();
    int const width = header[0].toInt();
    int const height = header[1].toInt();
    int const channels = header[2].toInt();
    if (bytes.size() - end - 1 != width * height * channels || (channels != 1 && channels != 3))
        return QImage();
    QImage image(width, height, QImage::Format_RGB32);
    char const* p = bytes.constData() + end + 1;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x, p += channels) {
            auto const at = [&](int c) { return static_cast<unsigned char>(p[channels == 1 ? 0 : c]); };
            image.setPixel(x, y, qRgb(at(0), at(1), at(2)));
        }
    return image;
}

DcmDataset* makeMammogram(Mammogram const& mg, char const* sopUID)
{
    DcmDataset* dataset =
        makeImageDataset("1.2.826.0.1.3680043.8.498.1", "1.2.826.0.1.3680043.8.498.1.1", sopUID);
    dataset->putAndInsertString(DCM_Modality, mg.modality);
    if (mg.studyDescription)
        dataset->putAndInsertString(DCM_StudyDescription, mg.studyDescription);
    if (mg.laterality)
        dataset->putAndInsertString(DCM_ImageLaterality, mg.laterality);
    if (mg.patientOrientation)
        dataset->putAndInsertString(DCM_PatientOrientation, mg.patientOrientation);
    if (mg.imageOrientation) {
        DcmItem* target = dataset;
        if (mg.orientationInFunctionalGroups)
            target =
                addItem(*addItem(*dataset, DCM_SharedFunctionalGroupsSequence), DCM_PlaneOrientationSequence);
        target->putAndInsertString(DCM_ImageOrientationPatient, mg.imageOrientation);
    }
    if (!mg.viewModifiers.empty()) {
        DcmItem* view = addItem(*dataset, DCM_ViewCodeSequence);
        view->putAndInsertString(DCM_CodeValue, "R-10242");
        for (char const* code : mg.viewModifiers)
            addItem(*view, DCM_ViewModifierCodeSequence)->putAndInsertString(DCM_CodeValue, code);
    }
    dataset->putAndInsertString(DCM_PhotometricInterpretation, "MONOCHROME2");
    dataset->putAndInsertUint16(DCM_SamplesPerPixel, 1);
    dataset->putAndInsertUint16(DCM_Rows, static_cast<Uint16>(mg.height));
    dataset->putAndInsertUint16(DCM_Columns, static_cast<Uint16>(mg.width));
    dataset->putAndInsertUint16(DCM_BitsAllocated, 16);
    dataset->putAndInsertUint16(DCM_BitsStored, 12);
    dataset->putAndInsertUint16(DCM_HighBit, 11);
    dataset->putAndInsertUint16(DCM_PixelRepresentation, 0);
    dataset->putAndInsertString(DCM_PixelSpacing, "0.1\\0.1");

    Ellipse const e = ellipseOf(mg);
    std::vector<Uint16> pixels(static_cast<size_t>(mg.width) * mg.height, 0);
    for (int y = 0; y < mg.height; ++y)
        for (int x = 0; x < mg.width; ++x) {
            Uint16& v = pixels[static_cast<size_t>(y) * mg.width + x];
            if (inside(e, x, y))
                v = static_cast<Uint16>(1500 + (x * 7 + y * 3) % 1000); // textured tissue
            if (mg.topBand && y < std::max(1, mg.height / 50))
                v = 4000;
        }
    dataset->putAndInsertUint16Array(DCM_PixelData, pixels.data(), static_cast<unsigned long>(pixels.size()));
    return dataset;
}

std::vector<int> mammogramTissueBox(Mammogram const& mg)
{
    Ellipse const e = ellipseOf(mg);
    int minX = mg.width, minY = mg.height, maxX = -1, maxY = -1;
    for (int y = 0; y < mg.height; ++y)
        for (int x = 0; x < mg.width; ++x)
            if (inside(e, x, y)) {
                minX = std::min(minX, x);
                maxX = std::max(maxX, x);
                minY = std::min(minY, y);
                maxY = std::max(maxY, y);
            }
    return {minX, minY, maxX, maxY};
}

} // namespace mdxtest
