// The boundary of the exported functions: nothing is thrown across it.
#pragma once

#include <exception>

// Logs that function failed unexpectedly, and why.
void reportUnexpected(char const* function, char const* what) noexcept;

// body(), or onError when it threw.
template <typename T, typename Body> T guarded(char const* function, T onError, Body&& body) noexcept
{
    try {
        return body();
    } catch (std::exception const& e) {
        reportUnexpected(function, e.what());
    } catch (...) {
        reportUnexpected(function, "unknown exception");
    }
    return onError;
}
