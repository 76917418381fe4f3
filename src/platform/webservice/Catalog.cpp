// The catalog's schema, its migrations and its statements, once for both
// backends: the SQL here is what SQLite and PostgreSQL both accept.
#include <mdxlib/platform/Catalog.h>

#include "CatalogConnection.h"

#include <mdxlib/platform/ExResource.h>
#include <mdxlib/platform/McLogFile.h>
#include <mdxlib/platform/WebService.h>

#include <cstdlib>
#include <cstring>
#include <functional>

namespace Lmg {

namespace {

// Migration n brings the schema from version n - 1 to n. "{ID}" stands for
// the backend's generated row id. Never change a migration once released:
// add the next one.
std::vector<std::vector<char const*>> const& migrations()
{
    static std::vector<std::vector<char const*>> const steps{
        {
            "CREATE TABLE studies (id {ID}, uid TEXT NOT NULL UNIQUE, patient_name TEXT NOT NULL DEFAULT '',"
            " patient_id TEXT NOT NULL DEFAULT '', study_date TEXT NOT NULL DEFAULT '')",
            "CREATE TABLE series (id {ID}, study_id BIGINT NOT NULL REFERENCES studies(id) ON DELETE CASCADE,"
            " uid TEXT NOT NULL UNIQUE, modality TEXT NOT NULL DEFAULT '', series_number INTEGER NOT NULL "
            "DEFAULT 0,"
            " description TEXT NOT NULL DEFAULT '', series_date TEXT NOT NULL DEFAULT '',"
            " series_time TEXT NOT NULL DEFAULT '', station TEXT NOT NULL DEFAULT '',"
            " flags INTEGER NOT NULL DEFAULT 0, volume_path TEXT NOT NULL DEFAULT '',"
            " volume_number INTEGER NOT NULL DEFAULT 0, parent_id BIGINT NOT NULL DEFAULT 0,"
            " generator_mark INTEGER NOT NULL DEFAULT 0)",
            "CREATE INDEX series_by_study ON series (study_id)",
            "CREATE TABLE images (sop_uid TEXT PRIMARY KEY, series_id BIGINT NOT NULL REFERENCES series(id)"
            " ON DELETE CASCADE, path TEXT NOT NULL, suffix TEXT NOT NULL DEFAULT '')",
            "CREATE INDEX images_by_series ON images (series_id)",
            "CREATE TABLE volume_files (path TEXT PRIMARY KEY, series_id BIGINT NOT NULL REFERENCES "
            "series(id)"
            " ON DELETE CASCADE, ordinal INTEGER NOT NULL DEFAULT 0)",
            "CREATE INDEX volume_files_by_series ON volume_files (series_id)",
            "CREATE TABLE qa_records (id BIGINT PRIMARY KEY, record_text TEXT NOT NULL)",
        },
    };
    return steps;
}

std::string withIdColumn(std::string sql, char const* idColumn)
{
    std::string const mark = "{ID}";
    for (size_t at = sql.find(mark); at != std::string::npos; at = sql.find(mark, at))
        sql.replace(at, mark.size(), idColumn);
    return sql;
}

int64_t toInt64(std::string const& text)
{
    return std::strtoll(text.c_str(), nullptr, 10);
}

int toInt(std::string const& text)
{
    return static_cast<int>(std::strtol(text.c_str(), nullptr, 10));
}

std::string text(int64_t value)
{
    return std::to_string(value);
}

bool startsWith(std::string const& text, char const* prefix)
{
    return text.rfind(prefix, 0) == 0;
}

char const kStudyColumns[] = "SELECT id, uid, patient_name, patient_id, study_date FROM studies";
char const kSeriesColumns[] = "SELECT id, study_id, uid, modality, series_number, description, series_date, "
                              "series_time, station, flags,"
                              " volume_path, volume_number, parent_id, generator_mark FROM series";

CatalogStudy studyOf(SqlRow const& row)
{
    CatalogStudy study;
    study.id = toInt64(row.at(0));
    study.uid = row.at(1);
    study.patientName = row.at(2);
    study.patientId = row.at(3);
    study.studyDate = row.at(4);
    return study;
}

CatalogSeries seriesOf(SqlRow const& row)
{
    CatalogSeries series;
    series.id = toInt64(row.at(0));
    series.studyId = toInt64(row.at(1));
    series.uid = row.at(2);
    series.modality = row.at(3);
    series.number = toInt(row.at(4));
    series.description = row.at(5);
    series.date = row.at(6);
    series.time = row.at(7);
    series.station = row.at(8);
    series.flags = toInt(row.at(9));
    series.volumePath = row.at(10);
    series.volumeNumber = toInt(row.at(11));
    series.parentId = toInt64(row.at(12));
    series.generatorMark = toInt(row.at(13)) != 0;
    return series;
}

CatalogImage imageOf(SqlRow const& row)
{
    return CatalogImage{row.at(0), toInt64(row.at(1)), row.at(2), row.at(3)};
}

template <typename Value>
McResult collect(CatalogConnection& connection, std::string const& sql,
                 std::vector<std::string> const& parameters, std::vector<Value>& out,
                 std::function<Value(SqlRow const&)> const& make)
{
    out.clear();
    SqlRows rows;
    McResult result = connection.execute(sql, parameters, &rows);
    if (result.ok()) {
        for (SqlRow const& row : rows)
            out.push_back(make(row));
    }
    return result;
}

// The id that an INSERT ... RETURNING id gave.
McResult returnedId(CatalogConnection& connection, std::string const& sql,
                    std::vector<std::string> const& parameters, int64_t& id)
{
    SqlRows rows;
    McResult result = connection.execute(sql, parameters, &rows);
    if (result.ok() && (rows.size() != 1 || rows[0].empty()))
        return catalogFailure("The catalog returned no row id");
    if (result.ok())
        id = toInt64(rows[0][0]);
    return result;
}

bool endsWith(std::string const& text, char const* suffix)
{
    size_t const length = std::strlen(suffix);
    return text.size() >= length && text.compare(text.size() - length, length, suffix) == 0;
}

bool looksLikeSqliteFile(std::string const& connection)
{
    return startsWith(connection, "sqlite:") || connection.find('/') != std::string::npos ||
           endsWith(connection, ".sqlite") || endsWith(connection, ".sqlite3") || endsWith(connection, ".db");
}

} // namespace

McResult catalogFailure(std::string const& message)
{
    getTheLogInstance()->tracef(3, "Database", "%s", message.c_str());
    return McResult::failure(message);
}

std::unique_ptr<Catalog> Catalog::open(std::string const& connection, McResult& result)
{
    std::unique_ptr<CatalogConnection> backend;
    if (startsWith(connection, "postgresql://") || startsWith(connection, "postgres://"))
        backend = openPostgresConnection(connection, result);
    else if (connection.empty() || connection == "sqlite:")
        result = catalogFailure("No catalog file named");
    else if (!looksLikeSqliteFile(connection))
        // A server's database name given as it stands would otherwise
        // become an empty SQLite file of that name in the working folder,
        // and every query would answer "not found" instead of failing.
        result = catalogFailure("The catalog connection is neither a PostgreSQL URL nor a SQLite file "
                                "(sqlite:PATH, or a path with a folder or a .sqlite/.db name)");
    else
        backend = openSqliteConnection(startsWith(connection, "sqlite:") ? connection.substr(7) : connection,
                                       result);
    if (!backend)
        return nullptr;
    std::unique_ptr<Catalog> catalog(new Catalog(std::move(backend)));
    result = catalog->migrate();
    return result.ok() ? std::move(catalog) : nullptr;
}

std::string Catalog::configuredConnection()
{
    std::string connection = GetDatabaseServer();
    if (connection.empty())
        connection = ExResource::getParameter("MDX_CATALOG", std::string());
    return connection.empty() ? defaultConnection() : connection;
}

std::string Catalog::defaultConnection()
{
    char const* data = std::getenv("XDG_DATA_HOME");
    std::string folder;
    if (data && *data)
        folder = data;
    else
        folder = std::string(std::getenv("HOME") ? std::getenv("HOME") : ".") + "/.local/share";
    return "sqlite:" + folder + "/mdxlib/catalog.sqlite";
}

int Catalog::latestSchemaVersion()
{
    return static_cast<int>(migrations().size());
}

Catalog::Catalog(std::unique_ptr<CatalogConnection> connection)
    : mConnection(std::move(connection))
{
}

Catalog::~Catalog() = default;

std::string Catalog::backendName() const
{
    return mConnection->backendName();
}

McResult Catalog::schemaVersion(int& version)
{
    SqlRows rows;
    McResult result = mConnection->execute("SELECT COALESCE(MAX(version), 0) FROM schema_version", {}, &rows);
    version = result.ok() && !rows.empty() && !rows[0].empty() ? toInt(rows[0][0]) : 0;
    return result;
}

McResult Catalog::migrate()
{
    McResult result = mConnection->beginExclusive();
    if (!result.ok())
        return result;
    int version = 0;
    result = mConnection->command("CREATE TABLE IF NOT EXISTS schema_version (version INTEGER NOT NULL)");
    if (result.ok())
        result = schemaVersion(version);
    for (int step = version + 1; result.ok() && step <= latestSchemaVersion(); ++step) {
        for (char const* statement : migrations()[static_cast<size_t>(step - 1)]) {
            result = mConnection->command(withIdColumn(statement, mConnection->idColumn()));
            if (!result.ok())
                break;
        }
        if (result.ok())
            result = mConnection->execute("INSERT INTO schema_version (version) VALUES (?)",
                                          {std::to_string(step)}, nullptr);
        if (result.ok())
            getTheLogInstance()->tracef(1, "Database", "Catalog schema migrated to version %d", step);
    }
    if (result.ok() && version > latestSchemaVersion())
        result =
            catalogFailure("The catalog has schema version " + std::to_string(version) +
                           ", newer than this library knows (" + std::to_string(latestSchemaVersion()) + ")");
    if (result.ok())
        return mConnection->command("COMMIT");
    mConnection->command("ROLLBACK"); // the failure is the first reason
    return result;
}

McResult Catalog::addStudy(CatalogStudy& study)
{
    return returnedId(*mConnection,
                      "INSERT INTO studies (uid, patient_name, patient_id, study_date) VALUES (?, ?, ?, ?)"
                      " ON CONFLICT (uid) DO UPDATE SET patient_name = excluded.patient_name,"
                      " patient_id = excluded.patient_id, study_date = excluded.study_date RETURNING id",
                      {study.uid, study.patientName, study.patientId, study.studyDate}, study.id);
}

McResult Catalog::addSeries(CatalogSeries& series)
{
    return returnedId(
        *mConnection,
        "INSERT INTO series (study_id, uid, modality, series_number, description, series_date, series_time, "
        "station,"
        " flags, volume_path, volume_number, parent_id, generator_mark) VALUES (?, ?, ?, ?, ?, ?, ?, ?, ?, "
        "?, ?, ?, ?)"
        " ON CONFLICT (uid) DO UPDATE SET study_id = excluded.study_id, modality = excluded.modality,"
        " series_number = excluded.series_number, description = excluded.description,"
        " series_date = excluded.series_date, series_time = excluded.series_time, station = excluded.station,"
        " flags = excluded.flags, volume_path = excluded.volume_path, volume_number = excluded.volume_number,"
        " parent_id = excluded.parent_id, generator_mark = excluded.generator_mark RETURNING id",
        {text(series.studyId), series.uid, series.modality, text(series.number), series.description,
         series.date, series.time, series.station, text(series.flags), series.volumePath,
         text(series.volumeNumber), text(series.parentId), series.generatorMark ? "1" : "0"},
        series.id);
}

McResult Catalog::addImage(CatalogImage const& image)
{
    return mConnection->execute("INSERT INTO images (sop_uid, series_id, path, suffix) VALUES (?, ?, ?, ?)"
                                " ON CONFLICT (sop_uid) DO UPDATE SET series_id = excluded.series_id,"
                                " path = excluded.path, suffix = excluded.suffix",
                                {image.sopUID, text(image.seriesId), image.path, image.suffix}, nullptr);
}

McResult Catalog::addVolumeFile(CatalogVolumeFile const& volumeFile)
{
    return mConnection->execute("INSERT INTO volume_files (path, series_id, ordinal) VALUES (?, ?, ?)"
                                " ON CONFLICT (path) DO UPDATE SET series_id = excluded.series_id,"
                                " ordinal = excluded.ordinal",
                                {volumeFile.path, text(volumeFile.seriesId), text(volumeFile.ordinal)},
                                nullptr);
}

McResult Catalog::setQAText(int qaId, std::string const& qaText)
{
    return mConnection->execute("INSERT INTO qa_records (id, record_text) VALUES (?, ?)"
                                " ON CONFLICT (id) DO UPDATE SET record_text = excluded.record_text",
                                {text(qaId), qaText}, nullptr);
}

McResult Catalog::begin()
{
    return mConnection->command("BEGIN");
}

McResult Catalog::commit()
{
    return mConnection->command("COMMIT");
}

McResult Catalog::rollback()
{
    return mConnection->command("ROLLBACK");
}

McResult Catalog::studies(std::vector<CatalogStudy>& out)
{
    return collect<CatalogStudy>(*mConnection, std::string(kStudyColumns) + " ORDER BY uid", {}, out,
                                 studyOf);
}

McResult Catalog::findStudy(std::string const& uid, std::optional<CatalogStudy>& out)
{
    std::vector<CatalogStudy> found;
    McResult result = collect<CatalogStudy>(
        *mConnection, std::string(kStudyColumns) + " WHERE uid = ? ORDER BY id", {uid}, found, studyOf);
    out = found.empty() ? std::nullopt : std::optional<CatalogStudy>(found.front());
    return result;
}

McResult Catalog::findStudy(int64_t id, std::optional<CatalogStudy>& out)
{
    std::vector<CatalogStudy> found;
    McResult result = collect<CatalogStudy>(
        *mConnection, std::string(kStudyColumns) + " WHERE id = ? ORDER BY id", {text(id)}, found, studyOf);
    out = found.empty() ? std::nullopt : std::optional<CatalogStudy>(found.front());
    return result;
}

McResult Catalog::seriesOfStudy(int64_t studyId, std::vector<CatalogSeries>& out)
{
    return collect<CatalogSeries>(
        *mConnection, std::string(kSeriesColumns) + " WHERE study_id = ? ORDER BY series_number, uid",
        {text(studyId)}, out, seriesOf);
}

McResult Catalog::imagesOfSeries(int64_t seriesId, std::vector<CatalogImage>& out)
{
    return collect<CatalogImage>(*mConnection,
                                 "SELECT sop_uid, series_id, path, suffix FROM images WHERE series_id = ?"
                                 " ORDER BY path, sop_uid",
                                 {text(seriesId)}, out, imageOf);
}

McResult Catalog::imagesOfStudy(int64_t studyId, std::vector<CatalogImage>& out)
{
    return collect<CatalogImage>(*mConnection,
                                 "SELECT i.sop_uid, i.series_id, i.path, i.suffix FROM images i"
                                 " JOIN series s ON s.id = i.series_id WHERE s.study_id = ?"
                                 " ORDER BY s.series_number, s.uid, i.path, i.sop_uid",
                                 {text(studyId)}, out, imageOf);
}

McResult Catalog::volumeFilesOfStudy(int64_t studyId, std::vector<CatalogVolumeFile>& out)
{
    return collect<CatalogVolumeFile>(
        *mConnection,
        "SELECT v.path, v.series_id, v.ordinal FROM volume_files v"
        " JOIN series s ON s.id = v.series_id WHERE s.study_id = ?"
        " ORDER BY s.uid, v.ordinal, v.path",
        {text(studyId)}, out, [](SqlRow const& row) {
            return CatalogVolumeFile{row.at(0), toInt64(row.at(1)), toInt(row.at(2))};
        });
}

McResult Catalog::imageCount(int64_t seriesId, int64_t& count)
{
    SqlRows rows;
    McResult result =
        mConnection->execute("SELECT COUNT(*) FROM images WHERE series_id = ?", {text(seriesId)}, &rows);
    count = result.ok() && !rows.empty() && !rows[0].empty() ? toInt64(rows[0][0]) : 0;
    return result;
}

McResult Catalog::qaText(int qaId, std::string& out)
{
    SqlRows rows;
    McResult result = mConnection->execute("SELECT record_text FROM qa_records WHERE id = ? ORDER BY id",
                                           {text(qaId)}, &rows);
    out = result.ok() && !rows.empty() && !rows[0].empty() ? rows[0][0] : std::string();
    return result;
}

} // namespace Lmg
