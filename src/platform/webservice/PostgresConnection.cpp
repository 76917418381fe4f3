// The catalog on a PostgreSQL server, for sites where many hosts share one
// catalog. Statements are sent with their parameters apart (never spliced
// into the text); "?" becomes PostgreSQL's "$n".
#include "CatalogConnection.h"

#include <mdxlib/platform/McLogFile.h>

#include <libpq-fe.h>

namespace Lmg {

namespace {

// The advisory lock key under which the schema is migrated.
char const kMigrationLock[] = "SELECT pg_advisory_xact_lock(7353201)";

std::string numberedParameters(std::string const& sql)
{
    std::string out;
    int next = 1;
    for (char c : sql) {
        if (c == '?')
            out += "$" + std::to_string(next++);
        else
            out += c;
    }
    return out;
}

// libpq's messages span lines, with a tab before a hint: one line for the log.
std::string oneLine(std::string message)
{
    while (!message.empty() && (message.back() == '\n' || message.back() == ' '))
        message.pop_back();
    std::string out;
    for (char c : message) {
        if (c == '\n' || c == '\t') {
            if (!out.empty() && out.back() != ' ')
                out += ' ';
        } else {
            out += c;
        }
    }
    return out;
}

// Notices ("relation exists, skipping") are for a debugging reader only.
void traceNotice(void*, char const* message)
{
    getTheLogInstance()->tracef(0, "Database", "PostgreSQL: %s", oneLine(message).c_str());
}

class PostgresConnection : public CatalogConnection
{
public:
    explicit PostgresConnection(PGconn* connection)
        : mConnection(connection)
    {
    }
    ~PostgresConnection() override { PQfinish(mConnection); }

    McResult execute(std::string const& sql, std::vector<std::string> const& parameters,
                     SqlRows* rows) override
    {
        std::vector<char const*> values;
        for (std::string const& value : parameters)
            values.push_back(value.c_str());
        PGresult* result =
            PQexecParams(mConnection, numberedParameters(sql).c_str(), static_cast<int>(values.size()),
                         nullptr, values.data(), nullptr, nullptr, 0);
        ExecStatusType const status = result ? PQresultStatus(result) : PGRES_FATAL_ERROR;
        if (status != PGRES_COMMAND_OK && status != PGRES_TUPLES_OK) {
            std::string const message =
                oneLine(result ? PQresultErrorMessage(result) : PQerrorMessage(mConnection));
            PQclear(result);
            return catalogFailure("PostgreSQL statement failed: " + message);
        }
        if (rows) {
            int const count = PQntuples(result);
            int const columns = PQnfields(result);
            for (int i = 0; i < count; ++i) {
                SqlRow row;
                for (int column = 0; column < columns; ++column)
                    row.emplace_back(PQgetvalue(result, i, column),
                                     static_cast<size_t>(PQgetlength(result, i, column)));
                rows->push_back(std::move(row));
            }
        }
        PQclear(result);
        return McResult::success();
    }

    McResult beginExclusive() override
    {
        McResult result = command("BEGIN");
        if (result.ok())
            result = command(kMigrationLock);
        return result;
    }

    char const* idColumn() const override { return "BIGSERIAL PRIMARY KEY"; }
    char const* backendName() const override { return "postgresql"; }

private:
    PGconn* mConnection;
};

} // namespace

std::unique_ptr<CatalogConnection> openPostgresConnection(std::string const& connection, McResult& result)
{
    PGconn* pg = PQconnectdb(connection.c_str());
    if (!pg) {
        result = catalogFailure("Could not allocate a PostgreSQL connection");
        return nullptr;
    }
    if (PQstatus(pg) != CONNECTION_OK) {
        // The connection string may hold a password: only the reason is told.
        result =
            catalogFailure("Could not connect to the PostgreSQL catalog: " + oneLine(PQerrorMessage(pg)));
        PQfinish(pg);
        return nullptr;
    }
    PQsetNoticeProcessor(pg, traceNotice, nullptr);
    result = McResult::success();
    return std::make_unique<PostgresConnection>(pg);
}

} // namespace Lmg
