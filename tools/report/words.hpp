#pragma once

#include <cstdint>
#include <string>
#include <string_view>

/// Numbers as the report's sentences, tables and pages say them.
namespace report {

/// "80 %": whole per cent of a share between 0 and 1, rounded down, so that nothing
/// looks better than it is.
std::string percent(double share);

/// The same, rounded up: for what must not look smaller than it is.
std::string percent_at_most(double share);

/// "1 event", "12 events", "1,000,000 events". `one` is the singular of a noun that takes an s.
std::string counted(std::int64_t count, std::string_view one);

/// "1,234,567".
std::string grouped(std::int64_t number);

/// "$0.0123": four digits below one dollar, else two.
std::string dollars(double amount);

/// "2026-11-16T19:05:00Z", and its first ten characters.
std::string timestamp(std::int64_t unix_seconds);
std::string day(std::int64_t unix_seconds);

}  // namespace report
