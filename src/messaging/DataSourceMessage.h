#pragma once

#include <string>

struct DataSourceInfo;

/// Builds the "dataarrival" or "dataremoval" text of a record. The key of a memory card is first
/// replaced, in the record too, by `CidCrcCorrect` of it.
///
/// Values are escaped where XML demands it: "&", "<", ">" and the double quote as entities; tab,
/// line feed and carriage return as character references; other bytes below 0x20 as "?", since XML
/// cannot carry them. All else stands byte for byte. The text holds no line break. Any thread.
[[nodiscard]] std::string BuildDataSourceMessage(DataSourceInfo& info);
