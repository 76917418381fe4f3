// The server-side services the library reports to: the database connection
// string and the server's trace.
//
// WriteTrace is the sink behind the library's log once a server has called
// ConfigureLogging. By default it writes one line to standard error; a host
// process can route the trace elsewhere with SetTraceFunction.
#pragma once

#include <mdxlib/Export.h>

#include <string>

#ifdef __cplusplus
extern "C" {
#endif

// Names the study catalog for the jobs that query it (see Catalog.h): an
// SQLite file ("PATH" or "sqlite:PATH") or a PostgreSQL server
// ("postgresql://user@host:port/database"). Null or empty goes back to the
// parameter MDX_CATALOG and then the default file. Threads open the new
// catalog at their next query.
MDX_EXPORT void SetDatabaseServer(char const* connection);
// Trace levels: 0 debug, 1 information, 2 warning, 3 error.
MDX_EXPORT void WriteTrace(int level, char const* category, char const* format, ...)
    __attribute__((format(printf, 3, 4)));

typedef void (*MdxTraceFunction)(int level, char const* category, char const* text);
// A null function restores the default (standard error).
MDX_EXPORT void SetTraceFunction(MdxTraceFunction function);

#ifdef __cplusplus
}

// The connection string last given to SetDatabaseServer, or empty.
MDX_EXPORT std::string GetDatabaseServer();
#endif
