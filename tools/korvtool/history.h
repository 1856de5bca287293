// The update history: every update and backup korvtool runs, and every unit
// a station updates, adds one record to an SQLite database in the user's
// data folder, so that field and production staff can tell afterwards what
// was written to which device, and how it ended.
//
//   Linux:   $XDG_DATA_HOME/korvtool/history.sqlite (~/.local/share/...)
//   Windows: %LOCALAPPDATA%\korvtool\history.sqlite
//   KORVTOOL_HISTORY=PATH names another database (tests, demonstrations).
//
// Many korvtool processes write at once (a station runs one per unit): the
// database runs in WAL mode and a writer waits for another's lock up to
// kBusyTimeout. A record is one transaction: written whole or not at all.
// Before the database, korvtool kept its history as JSON lines in
// history.jsonl beside it; the first use imports that file once (history.h's
// HistoryDatabase::Open), and leaves it where it is.
#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

struct sqlite3;

namespace korvtool {

// The history database; empty when no data folder is known.
std::filesystem::path HistoryPath();

// The time now in UTC, "2026-11-23T14:05:09Z".
std::string UtcTimeNow();

// Which records to read; an unset field does not filter. Times compare as
// the records' UTC texts do, bounds included.
struct HistoryFilter {
    std::optional<std::string> serial{}, run{}, result{}, location{};
    std::optional<std::string> since{}, until{};  // "2026-11-23T14:05:09Z"
    std::optional<size_t> limit{};                // the last N of those that match
};

// "2026-11-23" or "2026-11-23T14:05:09Z" as a bound for HistoryFilter: a
// date alone stands for its first second (`endOfDay` false) or its last.
// nullopt when the text is neither.
std::optional<std::string> HistoryTimeBound(const std::string& text, bool endOfDay);

// One connection to a history database.
class HistoryDatabase {
public:
    static constexpr std::chrono::milliseconds kBusyTimeout{10000};

    HistoryDatabase() = default;
    ~HistoryDatabase();
    HistoryDatabase(const HistoryDatabase&) = delete;
    HistoryDatabase& operator=(const HistoryDatabase&) = delete;

    // Opens `file`, creating it for the user alone and never through a
    // link planted at its name or at its -wal or -shm companion; on the
    // first use imports the JSON-lines history beside it (the same name
    // with .jsonl). False with the reason in `problem` when it cannot.
    bool Open(const std::filesystem::path& file, std::string& problem,
              std::chrono::milliseconds busyTimeout = kBusyTimeout);

    // Adds `entry` in one transaction. False, the database unchanged.
    bool Append(const nlohmann::ordered_json& entry, std::string& problem);

    // The records `filter` selects, oldest first, each as it was added.
    bool Read(const HistoryFilter& filter, std::vector<nlohmann::ordered_json>& entries,
              std::string& problem);

    // What this Open imported from the JSON-lines file: its entries, and its
    // lines that were not entries (left out).
    size_t Imported() const { return imported_; }
    size_t ImportSkipped() const { return importSkipped_; }

private:
    std::string Why(int code) const;
    bool Exec(const char* sql, std::string& problem);
    bool Setup(std::string& problem);

    sqlite3* db_ = nullptr;
    std::filesystem::path file_;
    std::chrono::milliseconds busyTimeout_{kBusyTimeout};
    size_t imported_ = 0;
    size_t importSkipped_ = 0;
};

// Adds `entry` to the database `file`. False, with the reason in `problem`,
// when it cannot be written; the caller warns and goes on (a history is no
// reason to fail an update).
bool AppendHistory(const std::filesystem::path& file, const nlohmann::ordered_json& entry,
                   std::string& problem);

// The entries as a table for a person, one line each after a header; a
// device's texts escaped (safe_text.h).
std::string HistoryTable(const std::vector<nlohmann::ordered_json>& entries);

// The entries as CSV (RFC 4180) with a header line: cells quoted where they
// need it, control characters escaped, and a cell that a spreadsheet would
// take for a formula (= + - @ first) kept as text by a leading '.
std::string HistoryCsv(const std::vector<nlohmann::ordered_json>& entries);

// One CSV cell: the text escaped as korvtool prints device texts, quoted
// when it holds a comma or a quote (RFC 4180), and with a ' before a first
// character that a spreadsheet would take for a formula.
std::string CsvCell(const std::string& text);

}  // namespace korvtool
