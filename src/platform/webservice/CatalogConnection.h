// One connection to the database under the catalog: statements in the SQL
// both backends understand, "?" for each parameter, values and results as
// text (NULL reads as empty). Backends differ only in what this class hides.
#pragma once

#include <mdxlib/platform/McResult.h>

#include <memory>
#include <string>
#include <vector>

namespace Lmg {

using SqlRow = std::vector<std::string>;
using SqlRows = std::vector<SqlRow>;

class CatalogConnection
{
public:
    virtual ~CatalogConnection() = default;

    // Runs one statement with its parameters; rows, when given, receive what
    // it returns.
    virtual McResult execute(std::string const& sql, std::vector<std::string> const& parameters,
                             SqlRows* rows) = 0;
    // Starts a transaction that holds the schema lock until its end, so that
    // two processes never migrate at once.
    virtual McResult beginExclusive() = 0;
    // The column type of a generated row id.
    virtual char const* idColumn() const = 0;
    virtual char const* backendName() const = 0;

    McResult command(std::string const& sql) { return execute(sql, {}, nullptr); }
};

// Logs the reason at level 3, category "Database", and returns it as a
// failure.
McResult catalogFailure(std::string const& message);

std::unique_ptr<CatalogConnection> openSqliteConnection(std::string const& path, McResult& result);
std::unique_ptr<CatalogConnection> openPostgresConnection(std::string const& connection, McResult& result);

} // namespace Lmg
