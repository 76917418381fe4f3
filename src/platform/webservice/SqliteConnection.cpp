// The catalog in an SQLite file: the embedded default, for one host. WAL
// journal, so that readers do not wait for a writer, and a busy time-out, so
// that a writer waits for another instead of failing at once.
#include "CatalogConnection.h"

#include <mdxlib/platform/McLogFile.h>

#include <QDir>
#include <QFileInfo>

#include <sqlite3.h>

namespace Lmg {

namespace {

int const kBusyTimeoutMsec = 10000;

// Closing fails only while statements are unfinished, which this file never
// leaves behind; if it happens anyway, the log says so.
void closeDatabase(sqlite3* db)
{
    int const code = sqlite3_close_v2(db);
    if (code != SQLITE_OK)
        getTheLogInstance()->tracef(2, "Database", "Could not close the catalog: %s", sqlite3_errstr(code));
}

class SqliteConnection : public CatalogConnection
{
public:
    explicit SqliteConnection(sqlite3* db)
        : mDb(db)
    {
    }
    ~SqliteConnection() override { closeDatabase(mDb); }

    McResult execute(std::string const& sql, std::vector<std::string> const& parameters,
                     SqlRows* rows) override
    {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(mDb, sql.c_str(), -1, &statement, nullptr) != SQLITE_OK)
            return failure("prepare");
        McResult const result = run(statement, parameters, rows);
        sqlite3_finalize(statement);
        return result;
    }

    McResult beginExclusive() override { return command("BEGIN IMMEDIATE"); }
    char const* idColumn() const override { return "INTEGER PRIMARY KEY"; }
    char const* backendName() const override { return "sqlite"; }

private:
    McResult run(sqlite3_stmt* statement, std::vector<std::string> const& parameters, SqlRows* rows)
    {
        for (size_t i = 0; i < parameters.size(); ++i) {
            std::string const& value = parameters[i];
            if (sqlite3_bind_text(statement, static_cast<int>(i + 1), value.data(),
                                  static_cast<int>(value.size()), SQLITE_TRANSIENT) != SQLITE_OK)
                return failure("bind");
        }
        for (;;) {
            int const code = sqlite3_step(statement);
            if (code == SQLITE_DONE)
                return McResult::success();
            if (code != SQLITE_ROW)
                return failure("step");
            if (!rows)
                continue;
            SqlRow row;
            int const columns = sqlite3_column_count(statement);
            for (int column = 0; column < columns; ++column) {
                auto const* text = reinterpret_cast<char const*>(sqlite3_column_text(statement, column));
                row.emplace_back(text ? text : "",
                                 text ? static_cast<size_t>(sqlite3_column_bytes(statement, column)) : 0);
            }
            rows->push_back(std::move(row));
        }
    }

    McResult failure(char const* what)
    {
        return catalogFailure(std::string("SQLite ") + what + " failed on " +
                              sqlite3_db_filename(mDb, "main") + ": " + sqlite3_errmsg(mDb));
    }

    sqlite3* mDb;
};

} // namespace

std::unique_ptr<CatalogConnection> openSqliteConnection(std::string const& path, McResult& result)
{
    QString const folder = QFileInfo(QString::fromStdString(path)).absolutePath();
    if (!QDir().mkpath(folder)) {
        result = catalogFailure("Could not create the catalog folder " + folder.toStdString());
        return nullptr;
    }
    sqlite3* db = nullptr;
    // One connection per thread: SQLite's own mutexes are not needed.
    int const code = sqlite3_open_v2(
        path.c_str(), &db, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
    if (code != SQLITE_OK) {
        result = catalogFailure("Could not open the catalog " + path + ": " +
                                (db ? sqlite3_errmsg(db) : sqlite3_errstr(code)));
        closeDatabase(db);
        return nullptr;
    }
    if (sqlite3_busy_timeout(db, kBusyTimeoutMsec) != SQLITE_OK) {
        result = catalogFailure("Could not set the busy time-out of " + path + ": " + sqlite3_errmsg(db));
        closeDatabase(db);
        return nullptr;
    }
    auto connection = std::make_unique<SqliteConnection>(db);
    // journal_mode answers with the mode in force, which must be WAL.
    SqlRows mode;
    result = connection->execute("PRAGMA journal_mode=WAL", {}, &mode);
    if (result.ok() && (mode.empty() || mode[0].empty() || mode[0][0] != "wal"))
        result = catalogFailure("The catalog " + path + " cannot use a write-ahead log");
    if (result.ok())
        result = connection->command("PRAGMA foreign_keys=ON");
    return result.ok() ? std::move(connection) : nullptr;
}

} // namespace Lmg
