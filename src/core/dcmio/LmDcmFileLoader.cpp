#include <mdxlib/cloudreader/CloudReader.h>
#include <mdxlib/cloudreader/File.h>
#include <mdxlib/curl/LmCurlClient.h>
#include <mdxlib/dcmio/DcmInputCloudStream.h>
#include <mdxlib/dcmio/DcmInputCurlStream.h>
#include <mdxlib/dcmio/DcmInputHttpStream.h>
#include <mdxlib/dcmio/LmDcmFileLoader.h>
#include <mdxlib/dcmio/LmDcmPixelItems.h>
#include <mdxlib/platform/McFilename.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/qa/QACache.h>

#include "LmDcmStagedStream.h"

#include "dcmtk/dcmdata/dcdeftag.h"
#include "dcmtk/dcmdata/dcistrmf.h"
#include "dcmtk/dcmdata/dcmetinf.h"
#include "dcmtk/dcmdata/dcpixel.h"
#include "dcmtk/dcmdata/dcpixseq.h"
#include "dcmtk/dcmdata/dcpxitem.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>

namespace {

std::atomic<LmDcmFileLoader::Mode> sDefaultMode{LmDcmFileLoader::MODE_SUSPEND_FILE};
std::atomic<bool> sCloudReaderEnabled{true};

// Every value is read whole on the roads whose streams cannot be reopened.
constexpr unsigned int kWholeValues = 0xFFFFFFFF;

// The local file of MODE_SUSPEND_FILE. DCMTK as distributed cannot hand a
// stream over to a value it left unread, so suspension is a reopened file
// positioned where this one stands: the same bytes follow.
class DcmInputSuspendStream : public DcmInputFileStream
{
public:
    explicit DcmInputSuspendStream(OFFilename const& name)
        : DcmInputFileStream(name, 0)
        , mName(name)
    {
    }

    DcmInputStream* suspend() const { return new DcmInputFileStream(mName, tell()); }

private:
    OFFilename mName;
};

// The name without its query, and the QA number the query asks for (0: none).
std::string splitQuery(std::string const& path, int& qaNumber)
{
    qaNumber = 0;
    size_t const question = path.find('?');
    if (question == std::string::npos)
        return path;
    size_t const qa = path.find("QA=", question + 1);
    if (qa != std::string::npos)
        qaNumber = std::atoi(path.c_str() + qa + 3);
    return path.substr(0, question);
}

// Steps shared by both conversions: the copy with forward slashes, and the
// index of the slash behind the host; npos when the path is no file-server path.
size_t fileServerSlash(std::string const& path, std::string& copy, size_t& hostStart)
{
    copy = path;
    std::replace(copy.begin(), copy.end(), '\\', '/');
    if (copy.compare(0, 9, "/Storage/") == 0)
        hostStart = 9;
    else if (copy.compare(0, 2, "//") == 0)
        hostStart = 2;
    else
        return std::string::npos;
    if (hostStart >= copy.size())
        return std::string::npos;
    return copy.find('/', hostStart);
}

// A transfer over the network fails as an early end of data: the parser
// may take a body cut off between two elements for a whole object. These
// ask the transfer itself.
bool curlTransferFailed(DcmCurlProducer& producer, bool readToEnd)
{
    LmCurlDownloadStream& stream = producer.stream();
    for (LmHttpStatus const* s = &stream.httpStatus(); s; s = s->next.get()) {
        if (s->curlError || s->responseCode < 200 || s->responseCode > 299)
            return true;
    }
    int64_t const length = stream.contentLength();
    return readToEnd && length > 0 && producer.position() < length;
}

bool cloudTransferFailed(DcmCloudProducer& producer, bool readToEnd)
{
    Kz::File const* file = producer.file().get();
    if (!file || file->state() == Kz::File::FILE_BAD)
        return true;
    long long const length = file->length();
    return readToEnd && length > 0 && producer.position() < length;
}

bool httpTransferFailed(DcmHttpProducer& producer)
{
    return producer.get().state() == McHttpGet::STATE_FAILED;
}

} // namespace

LmDcmFileLoader::LmDcmFileLoader(Mode mode)
    : mMode(mode)
{
}

LmDcmFileLoader::~LmDcmFileLoader() = default;

void LmDcmFileLoader::dropAll()
{
    mFileFormat.getMetaInfo()->clear();
    mFileFormat.getDataset()->clear();
}

OFCondition LmDcmFileLoader::readStream(DcmInputStream& stream, E_TransferSyntax readXfer,
                                        E_GrpLenEncoding groupLength, unsigned int maxReadLength,
                                        ReadCallback callback)
{
    dropAll();
    mFileFormat.transferInit();
    OFCondition cond;
    if (!callback) {
        cond = mFileFormat.read(stream, readXfer, groupLength, maxReadLength);
    } else {
        // The parse runs in stages so that each top-level element is shown
        // to the callback once its tag and length are known; READ_STOP drops
        // that element and those after it and ends the read.
        LmDcmStagedStream staged(stream);
        LmDcmStagedProducer& producer = staged.producer();
        producer.grant(producer.headerBytes());
        int64_t step = 4096;
        unsigned long shown = 0;
        while (true) {
            int64_t const before = producer.delivered();
            cond = mFileFormat.read(staged, readXfer, groupLength, kWholeValues);
            DcmDataset* dataset = mFileFormat.getDataset();
            bool stop = false;
            for (; shown < dataset->card(); ++shown) {
                DcmElement* element = dataset->getElement(shown);
                Uint32 const length = element->getLengthField();
                if (callback(element->getTag(), length) == READ_STOP) {
                    while (dataset->card() > shown)
                        delete dataset->remove(dataset->card() - 1);
                    stop = true;
                    break;
                }
            }
            if (stop) {
                cond = EC_Normal;
                break;
            }
            if (cond != EC_StreamNotifyClient)
                break;
            if (producer.delivered() == before && step > (int64_t(1) << 20)) {
                cond = EC_StreamNotifyClient; // the source has nothing more
                break;
            }
            producer.grant(step);
            step = std::min<int64_t>(step * 2, int64_t(1) << 24);
        }
    }
    mFileFormat.transferEnd();
    mPosition = stream.tell();
    return cond;
}

OFCondition LmDcmFileLoader::loadFile(OFFilename const& fileName, E_TransferSyntax readXfer,
                                      E_GrpLenEncoding groupLength, unsigned int maxReadLength,
                                      E_FileReadMode /*readMode*/, ReadCallback callback)
{
    McLogFile* log = getTheLogInstance();
    int qaNumber = 0;
    std::string name = splitQuery(fileName.getCharPointer() ? fileName.getCharPointer() : "", qaNumber);
    OFCondition cond;
    bool local = false;

    auto readCloud = [&](std::shared_ptr<Kz::File> const& file) {
        DcmInputCloudStream stream(file, true);
        cond = readStream(stream, readXfer, groupLength, kWholeValues, callback);
        if (cloudTransferFailed(stream.producer(), !callback)) {
            log->errorf("Reading %s failed", name.c_str());
            dropAll();
            cond = EC_InvalidStream;
        }
    };

    if (McFilename::isUrl(name.c_str())) {
        if (!cloudReaderEnabled() && !McFilename::isInContainer(name.c_str()) &&
            !McFilename::isWado(name.c_str())) {
            LmCurlDownloadStream download = LmCurlClient::instance()->read(name, false);
            LmHttpStatus const& status = download.httpStatus();
            if (status.responseCode < 200 || status.responseCode > 299 || status.curlError) {
                log->errorf("Reading %s failed: HTTP response code %d", name.c_str(), status.responseCode);
                return EC_InvalidStream;
            }
            DcmInputCurlStream stream(std::move(download), true);
            cond = readStream(stream, readXfer, groupLength, kWholeValues, callback);
            if (curlTransferFailed(stream.producer(), !callback)) {
                log->errorf("Reading %s failed: the transfer broke off after %lld bytes", name.c_str(),
                            static_cast<long long>(stream.producer().position()));
                dropAll();
                cond = EC_InvalidStream;
            }
        } else {
            std::shared_ptr<Kz::File> file = Kz::CloudReader::instance().openFile(name, sessionContext);
            // A container without the member gives no file: that is a file that isn't open.
            if (!file || file->state() != Kz::File::FILE_OPEN) {
                log->errorf("Reading %s failed", name.c_str());
                return EC_InvalidStream;
            }
            readCloud(file);
        }
    } else {
        Mode mode = mMode == MODE_DEFAULT ? defaultMode() : mMode;
        if (McFilename::isInContainer(name.c_str()))
            mode = MODE_CLOUD;
        if (mode == MODE_HTTP) {
            std::string url = name;
            if (convertPathToURL(url)) {
                name = url;
                DcmInputHttpStream stream;
                stream.setBearerToken(LmCurlClient::instance()->helper()->getFFS2BearerToken(name).c_str());
                stream.request(name.c_str());
                cond = readStream(stream, readXfer, groupLength, kWholeValues, callback);
                if (httpTransferFailed(stream.producer())) {
                    log->errorf("Reading %s failed: %s", name.c_str(), stream.producer().get().errorText());
                    dropAll();
                    cond = EC_InvalidStream;
                }
            } else {
                mode = MODE_CLOUD;
            }
        }
        if (mode == MODE_CLOUD) {
            std::string url = name;
            if (convertPathToURL(url)) {
                name = url;
                std::shared_ptr<Kz::File> file = Kz::CloudReader::instance().openFile(name, sessionContext);
                if (!file) {
                    log->errorf("Reading %s failed", name.c_str());
                    return EC_InvalidStream;
                }
                readCloud(file);
            } else {
                local = true;
            }
        } else if (mode == MODE_SUSPEND_FILE) {
            local = true;
        } else if (mode != MODE_HTTP) {
            DcmInputFileStream stream(name.c_str(), 0);
            cond = stream.status();
            if (cond.good())
                cond = readStream(stream, readXfer, groupLength, maxReadLength, callback);
        }
    }
    if (local) {
        DcmInputSuspendStream stream(name.c_str());
        cond = stream.status();
        if (cond.good())
            cond = readStream(stream, readXfer, groupLength, kWholeValues, callback);
    }
    if (cond.good() && qaNumber >= 1)
        QACache::instance().applyQA(*mFileFormat.getDataset(), qaNumber);
    return cond;
}

OFCondition LmDcmFileLoader::read(DcmInputStream& stream, E_TransferSyntax readXfer,
                                  E_GrpLenEncoding groupLength, unsigned int maxReadLength)
{
    mFileFormat.transferInit();
    OFCondition const cond = mFileFormat.read(stream, readXfer, groupLength, maxReadLength);
    mFileFormat.transferEnd();
    mPosition = stream.tell();
    return cond;
}

OFCondition LmDcmFileLoader::validateMetaInfo(E_TransferSyntax xfer, E_FileWriteMode writeMode)
{
    return mFileFormat.validateMetaInfo(xfer, writeMode);
}

DcmMetaInfo* LmDcmFileLoader::getMetaInfo()
{
    return mFileFormat.getMetaInfo();
}

DcmDataset* LmDcmFileLoader::getDataset()
{
    return mFileFormat.getDataset();
}

OFCondition LmDcmFileLoader::readUntilEnd()
{
    OFCondition cond = EC_Normal;
    DcmDataset* dataset = mFileFormat.getDataset();
    DcmElement* element = nullptr;
    if (!dataset || dataset->findAndGetElement(DCM_PixelData, element).bad() || !element)
        return cond;
    DcmPixelData* pixelData = dynamic_cast<DcmPixelData*>(element);
    if (!pixelData)
        return cond;
    E_TransferSyntax xfer = EXS_Unknown;
    DcmRepresentationParameter const* parameter = nullptr;
    pixelData->getOriginalRepresentationKey(xfer, parameter);
    DcmPixelSequence* sequence = nullptr;
    if (pixelData->getEncapsulatedRepresentation(xfer, parameter, sequence).bad() || !sequence)
        return cond;
    // The items still in their stream are what a lazy parse left there.
    if (!LmDcmPixelItems::sequenceStream(*sequence))
        return cond;
    cond = LmDcmPixelItems::readUntilFrame(*sequence, 0xFFFFFFFF, 1);
    if (cond.bad())
        getTheLogInstance()->errorf("Could not read until end of stream: %s", cond.text());
    // The parse that left the items behind skipped over them, so the
    // position already stands behind the last one; loading reopened the
    // file for each item, and the factories went with the loaded values.
    return cond;
}

LmDcmFileLoader::Mode LmDcmFileLoader::setDefaultMode(Mode mode)
{
    return sDefaultMode.exchange(mode);
}

bool LmDcmFileLoader::setCloudReaderEnabled(bool enabled)
{
    return sCloudReaderEnabled.exchange(enabled);
}

LmDcmFileLoader::Mode LmDcmFileLoader::defaultMode()
{
    return sDefaultMode.load();
}

LmDcmFileLoader::Mode LmDcmFileLoader::leaveLargeValuesMode()
{
    return defaultMode() == MODE_SUSPEND_FILE ? MODE_FILE : MODE_DEFAULT;
}

bool LmDcmFileLoader::cloudReaderEnabled()
{
    return sCloudReaderEnabled.load();
}

bool LmDcmFileLoader::convertPathToURL(std::string& path)
{
    std::string copy;
    size_t hostStart = 0;
    size_t const slash = fileServerSlash(path, copy, hostStart);
    if (slash == std::string::npos)
        return false;
    std::string const host = copy.substr(hostStart, slash - hostStart);
    path =
        "http://" + host + ":" + LmCurlClient::instance()->helper()->getFFS2Port(host) + copy.substr(slash);
    return true;
}

std::string LmDcmFileLoader::convertPathToExternalURL(char const* path)
{
    std::string const text = path ? path : "";
    size_t const scheme = text.find("://");
    if (McFilename::isUrl(text.c_str()) && scheme != std::string::npos)
        return LmCurlClient::url(text.substr(scheme + 3));
    std::string copy;
    size_t hostStart = 0;
    size_t const slash = fileServerSlash(text, copy, hostStart);
    if (slash == std::string::npos)
        return std::string();
    return LmCurlClient::url(copy.substr(slash + 1));
}
