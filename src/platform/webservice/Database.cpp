// The database functions over the catalog, with one catalog connection per
// thread.
#include <mdxlib/platform/Database.h>

#include "CatalogConnection.h"

#include <mdxlib/platform/Catalog.h>

#include <cctype>
#include <exception>
#include <functional>
#include <initializer_list>
#include <map>

namespace {

using Lmg::Catalog;

// Runs work on this thread's catalog, opening it when none is open or the
// configured connection changed. A failure drops the connection: the next
// call connects anew.
McResult withCatalog(std::function<McResult(Catalog&)> const& work)
{
    thread_local std::string connectionOfThread;
    thread_local std::unique_ptr<Catalog> catalogOfThread;
    try {
        std::string const connection = Catalog::configuredConnection();
        if (!catalogOfThread || connectionOfThread != connection) {
            catalogOfThread.reset();
            McResult opened;
            catalogOfThread = Catalog::open(connection, opened);
            if (!catalogOfThread)
                return opened;
            connectionOfThread = connection;
        }
        McResult result = work(*catalogOfThread);
        if (!result.ok())
            catalogOfThread.reset();
        return result;
    } catch (std::exception const& error) {
        catalogOfThread.reset();
        return Lmg::catalogFailure(std::string("Catalog query failed: ") + error.what());
    }
}

std::shared_ptr<Lmg::DicomDirectoryEntry> seriesEntry(Lmg::CatalogSeries const& series)
{
    auto entry = std::make_shared<Lmg::DicomDirectoryEntry>();
    entry->id = static_cast<int>(series.id);
    entry->modality = series.modality;
    entry->seriesUID = series.uid;
    entry->seriesNumber = series.number;
    entry->seriesDescription = series.description;
    entry->seriesDate = series.date;
    entry->seriesTime = series.time;
    entry->stationName = series.station;
    entry->volumePath = series.volumePath;
    entry->volumeNumber = series.volumeNumber;
    entry->flags = series.flags;
    return entry;
}

McResult addImages(Catalog& catalog, Lmg::DicomDirectoryEntry& entry)
{
    std::vector<Lmg::CatalogImage> images;
    McResult result = catalog.imagesOfSeries(entry.id, images);
    entry.info = std::make_shared<Lmg::SeriesInfo>();
    for (Lmg::CatalogImage const& image : images)
        entry.info->images.push_back(Lmg::SeriesImageRecord{image.sopUID, image.path, image.suffix});
    return result;
}

} // namespace

McResult GetStudy(std::string const& /*requester*/, std::string const& studyUID, Lmg::ReplyFacade* reply,
                  Lmg::WsRequest const& /*request*/, bool /*withPatientDetails*/, bool /*exactMatch*/,
                  int maxEntries)
{
    if (!reply)
        return Lmg::catalogFailure("GetStudy needs a reply to fill");
    return withCatalog([&](Catalog& catalog) {
        std::optional<Lmg::CatalogStudy> study;
        McResult result = catalog.findStudy(studyUID, study);
        if (result.ok() && study && maxEntries > 0) {
            auto entry = std::make_shared<Lmg::DicomDirectoryEntry>();
            entry->id = static_cast<int>(study->id);
            entry->studyUID = study->uid;
            entry->patientName = study->patientName;
            entry->patientId = study->patientId;
            entry->studyDate = study->studyDate;
            reply->entries.push_back(entry);
        }
        return result;
    });
}

McResult GetSeries(int studyId, Lmg::ReplyFacade* reply, Lmg::WsRequest const& /*request*/, int level,
                   int offset, int /*flags*/)
{
    std::shared_ptr<Lmg::DicomDirectoryEntry> study;
    for (auto const& entry :
         reply ? reply->entries : std::vector<std::shared_ptr<Lmg::DicomDirectoryEntry>>()) {
        if (entry && entry->id == studyId && !study)
            study = entry;
    }
    if (!study)
        return Lmg::catalogFailure("GetSeries: study " + std::to_string(studyId) + " is not in the reply");
    return withCatalog([&](Catalog& catalog) {
        std::vector<Lmg::CatalogSeries> rows;
        McResult result = catalog.seriesOfStudy(studyId, rows);
        std::map<int64_t, std::shared_ptr<Lmg::DicomDirectoryEntry>> byId;
        for (Lmg::CatalogSeries const& series : rows)
            byId[series.id] = seriesEntry(series);
        std::vector<std::shared_ptr<Lmg::DicomDirectoryEntry>> top;
        for (Lmg::CatalogSeries const& series : rows) {
            auto const parent = byId.find(series.parentId);
            if (series.parentId != 0 && parent != byId.end())
                parent->second->children.push_back(byId[series.id]);
            else
                top.push_back(byId[series.id]);
        }
        study->children.clear();
        for (size_t i = static_cast<size_t>(offset > 0 ? offset : 0); i < top.size(); ++i)
            study->children.push_back(top[i]);
        for (auto const& entry : byId) {
            if (result.ok() && level >= 4)
                result = addImages(catalog, *entry.second);
        }
        return result;
    });
}

McResult GetAllFilesOfStudy(std::string const& /*userName*/, int studyId,
                            std::vector<std::string>& dicomFiles, std::vector<std::string>& volumeFiles,
                            std::set<std::string>& seriesUIDs)
{
    dicomFiles.clear();
    volumeFiles.clear();
    seriesUIDs.clear();
    return withCatalog([&](Catalog& catalog) {
        std::vector<Lmg::CatalogImage> images;
        std::vector<Lmg::CatalogVolumeFile> volumes;
        std::vector<Lmg::CatalogSeries> series;
        McResult result = catalog.imagesOfStudy(studyId, images);
        if (result.ok())
            result = catalog.volumeFilesOfStudy(studyId, volumes);
        if (result.ok())
            result = catalog.seriesOfStudy(studyId, series);
        for (Lmg::CatalogImage const& image : images)
            dicomFiles.push_back(image.path);
        for (Lmg::CatalogVolumeFile const& volume : volumes)
            volumeFiles.push_back(volume.path);
        for (Lmg::CatalogSeries const& one : series) {
            if (one.generatorMark)
                seriesUIDs.insert(one.uid);
        }
        return result;
    });
}

McResult GetQAData(int qaId, std::string& text)
{
    text.clear();
    return withCatalog([&](Catalog& catalog) { return catalog.qaText(qaId, text); });
}

int Lmg::dateReformat(std::string const& date)
{
    std::string digits;
    size_t i = 0;
    // Four digits of the year, then two and two, each group optionally
    // behind one separator.
    for (int group : {4, 2, 2}) {
        if (group != 4 && i < date.size() && (date[i] == '-' || date[i] == '/' || date[i] == '.'))
            ++i;
        for (int n = 0; n < group; ++n, ++i) {
            if (i >= date.size() || !std::isdigit(static_cast<unsigned char>(date[i])))
                return 0;
            digits += date[i];
        }
    }
    return std::stoi(digits);
}
