// The update history: every update and backup korvtool runs adds one JSON
// line to a file in the user's data folder, so that field staff can tell
// afterwards what was written to which device, and how it ended.
//
//   Linux:   $XDG_DATA_HOME/korvtool/history.jsonl (~/.local/share/...)
//   Windows: %LOCALAPPDATA%\korvtool\history.jsonl
//   KORVTOOL_HISTORY=PATH names another file (tests, demonstrations).
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace korvtool {

// The history file; empty when no data folder is known.
std::filesystem::path HistoryPath();

// The time now in UTC, "2026-11-23T14:05:09Z".
std::string UtcTimeNow();

// Appends `entry` as one line. False, with the reason in `problem`, when the
// file cannot be written; the caller warns and goes on (a history is no
// reason to fail an update).
bool AppendHistory(const std::filesystem::path& file, const nlohmann::ordered_json& entry,
                   std::string& problem);

// The entries of the file in their order; lines that are not JSON objects
// are counted in `skipped`. A missing file has none.
std::vector<nlohmann::ordered_json> ReadHistory(const std::filesystem::path& file,
                                                size_t& skipped);

// The entries as a table for a person, one line each after a header.
std::string HistoryTable(const std::vector<nlohmann::ordered_json>& entries);

}  // namespace korvtool
