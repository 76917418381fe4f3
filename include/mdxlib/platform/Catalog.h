// The study catalog: which studies, series, images and volume files exist
// and where their files lie, plus the QA records. One interface over two
// backends, chosen by the connection string:
//
//   "postgresql://..." or "postgres://..."  a PostgreSQL server, for sites
//                                           where many hosts share a catalog
//   "sqlite:PATH" or a plain PATH           an SQLite file (the embedded default)
//
// The schema is created and brought up to date by numbered migrations when a
// catalog is opened. A Catalog is one connection: use it from one thread at
// a time (the database functions keep one per thread). No operation throws:
// a database that is down, locked or damaged gives a failed McResult, and
// the reason is logged at level 3, category "Database".
#pragma once

#include <mdxlib/Export.h>
#include <mdxlib/platform/CatalogRecords.h>
#include <mdxlib/platform/McResult.h>

#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Lmg {

class CatalogConnection;

class MDX_EXPORT Catalog
{
public:
    // Opens the catalog named by connection and migrates its schema. Null
    // with the reason in result when that fails.
    static std::unique_ptr<Catalog> open(std::string const& connection, McResult& result);

    // The catalog this process uses: the string given to SetDatabaseServer,
    // else the parameter MDX_CATALOG, else defaultConnection().
    static std::string configuredConnection();
    // "sqlite:" and catalog.sqlite in $XDG_DATA_HOME/mdxlib/, else in
    // ~/.local/share/mdxlib/. Tag files lie in the meta folder; the catalog
    // never does.
    static std::string defaultConnection();
    // The schema version that open() brings a catalog to.
    static int latestSchemaVersion();

    ~Catalog();
    Catalog(Catalog const&) = delete;
    Catalog& operator=(Catalog const&) = delete;

    // "sqlite" or "postgresql".
    std::string backendName() const;
    McResult schemaVersion(int& version);

    // ---- writes: each adds a row or updates the row of the same UID (path
    // for volume files, id for QA records), so that adding twice changes
    // nothing and a moved file only changes its path. study.id and series.id
    // receive the row's id.
    McResult addStudy(CatalogStudy& study);
    McResult addSeries(CatalogSeries& series);
    McResult addImage(CatalogImage const& image);
    McResult addVolumeFile(CatalogVolumeFile const& volumeFile);
    McResult setQAText(int qaId, std::string const& text);

    // Many writes as one: faster, and all or nothing. Nesting is not
    // supported.
    McResult begin();
    McResult commit();
    McResult rollback();

    // ---- reads, each in a stated order
    // All studies, by UID.
    McResult studies(std::vector<CatalogStudy>& out);
    // An empty optional when there is no such study.
    McResult findStudy(std::string const& uid, std::optional<CatalogStudy>& out);
    McResult findStudy(int64_t id, std::optional<CatalogStudy>& out);
    // The series of a study, parts included: by series number, then UID.
    McResult seriesOfStudy(int64_t studyId, std::vector<CatalogSeries>& out);
    // The images of a series, by path, then SOP Instance UID.
    McResult imagesOfSeries(int64_t seriesId, std::vector<CatalogImage>& out);
    // The images of a study: by series number, series UID, path, SOP UID.
    McResult imagesOfStudy(int64_t studyId, std::vector<CatalogImage>& out);
    // The volume files of a study: by series UID, ordinal, path.
    McResult volumeFilesOfStudy(int64_t studyId, std::vector<CatalogVolumeFile>& out);
    // The number of images in a series.
    McResult imageCount(int64_t seriesId, int64_t& count);
    // An empty text when there is no such record.
    McResult qaText(int qaId, std::string& text);

private:
    explicit Catalog(std::unique_ptr<CatalogConnection> connection);
    McResult migrate();

    std::unique_ptr<CatalogConnection> mConnection;
};

} // namespace Lmg
