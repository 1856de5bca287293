#include "history.h"

#include <sqlite3.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <memory>

#ifdef _WIN32
#ifndef NOMINMAX
#define NOMINMAX  // std::max below
#endif
#include <windows.h>
#else
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

#include "safe_text.h"

namespace korvtool {

namespace fs = std::filesystem;
using nlohmann::ordered_json;

namespace {

// The layout of the database, in PRAGMA user_version; a later korvtool
// that changes it migrates from this number.
constexpr int kSchemaVersion = 1;

// One row per record: the fields korvtool filters and shows as columns of
// their own, and the whole entry as JSON text, so that no key is lost.
// meta holds the mark of the JSON-lines import.
constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS meta(key TEXT PRIMARY KEY, value TEXT NOT NULL);"
    "CREATE TABLE IF NOT EXISTS history("
    "  id INTEGER PRIMARY KEY, time TEXT, command TEXT, run TEXT, station TEXT,"
    "  location TEXT, serial TEXT, vid_pid TEXT, model TEXT, result TEXT, message TEXT,"
    "  usb_before TEXT, usb_after TEXT, mcu_before TEXT, mcu_after TEXT, file TEXT,"
    "  entry TEXT NOT NULL);"
    "CREATE INDEX IF NOT EXISTS history_serial ON history(serial);"
    "CREATE INDEX IF NOT EXISTS history_run ON history(run);"
    "CREATE INDEX IF NOT EXISTS history_time ON history(time);";

constexpr const char* kImportKey = "jsonl_import";

// The columns of a record after id, in the order of kSchema; `entry` last.
constexpr const char* kColumns[] = {"time",      "command",    "run",       "station",
                                    "location",  "serial",     "vid_pid",   "model",
                                    "result",    "message",    "usb_before", "usb_after",
                                    "mcu_before", "mcu_after", "file"};
constexpr size_t kColumnCount = std::size(kColumns);
enum Column : size_t {
    kTime, kCommand, kRun, kStation, kLocation, kSerial, kVidPid, kModel, kResult, kMessage,
    kUsbBefore, kUsbAfter, kMcuBefore, kMcuAfter, kFile
};

// An environment variable as a path; empty when unset. Windows keeps the
// environment in UTF-16: the wide call keeps a non-ASCII user name intact.
fs::path EnvironmentPath(const char* name) {
#ifdef _WIN32
    const std::wstring wide(name, name + std::char_traits<char>::length(name));
    const wchar_t* value = _wgetenv(wide.c_str());
#else
    const char* value = std::getenv(name);
#endif
    return value != nullptr && value[0] != 0 ? fs::path(value) : fs::path();
}

// A field as text: strings as they are, numbers and the rest as JSON.
std::optional<std::string> Text(const ordered_json& entry, const char* key) {
    const auto it = entry.find(key);
    if (it == entry.end() || it->is_null()) return std::nullopt;
    return it->is_string() ? it->get<std::string>() : JsonText(*it);
}

// An entry's column values. The station's entries carry them under these
// names; an update's or a backup's entry names its kind ("usb", "mcu",
// "backup") and its versions without the firmware they belong to.
std::vector<std::optional<std::string>> ColumnsOf(const ordered_json& entry) {
    std::vector<std::optional<std::string>> values;
    for (const char* key : kColumns) values.push_back(Text(entry, key));
    const std::optional<std::string> kind = Text(entry, "kind");
    if (!values[kCommand] && kind)
        values[kCommand] = *kind == "backup" ? *kind : "update " + *kind;
    if (kind == "usb" || kind == "mcu" || kind == "backup") {
        const bool mcu = kind == "mcu";
        auto& before = values[mcu ? kMcuBefore : kUsbBefore];
        auto& after = values[mcu ? kMcuAfter : kUsbAfter];
        if (!before) before = Text(entry, "version_before");
        if (!after) after = Text(entry, "version_after");
    }
    return values;
}

std::string PathText(const fs::path& file) {
#ifdef _WIN32
    // SQLite takes UTF-8 names and turns them into the wide ones itself.
    const std::u8string name = file.u8string();
    return std::string(name.begin(), name.end());
#else
    return file.string();
#endif
}

// A statement that finalizes itself.
using Statement = std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)>;

Statement Prepare(sqlite3* db, const char* sql, int& code) {
    sqlite3_stmt* statement = nullptr;
    code = sqlite3_prepare_v2(db, sql, -1, &statement, nullptr);
    return Statement(statement, &sqlite3_finalize);
}

void BindText(sqlite3_stmt* statement, int index, const std::optional<std::string>& value) {
    if (value) {
        sqlite3_bind_text(statement, index, value->data(), static_cast<int>(value->size()),
                          SQLITE_TRANSIENT);
    } else {
        sqlite3_bind_null(statement, index);
    }
}

// One record added within the transaction the caller holds (or as one of
// its own). SQLITE_DONE when written.
int Insert(sqlite3* db, const ordered_json& entry) {
    static const std::string sql = [] {
        std::string names, marks;
        for (const char* column : kColumns) {
            names += std::string(column) + ",";
            marks += "?,";
        }
        return "INSERT INTO history(" + names + "entry) VALUES(" + marks + "?)";
    }();
    int code = SQLITE_OK;
    const Statement statement = Prepare(db, sql.c_str(), code);
    if (code != SQLITE_OK) return code;
    const std::vector<std::optional<std::string>> values = ColumnsOf(entry);
    for (size_t i = 0; i < values.size(); ++i)
        BindText(statement.get(), static_cast<int>(i + 1), values[i]);
    BindText(statement.get(), static_cast<int>(kColumnCount + 1), JsonText(entry));
    return sqlite3_step(statement.get());
}

#ifndef _WIN32
// Why the existing `file` is no file of this user's own to write; "" when
// it is one. `info` describes it without following a link.
std::string Refusal(const struct stat& info) {
    if (S_ISLNK(info.st_mode)) return "it is a symbolic link";
    if (!S_ISREG(info.st_mode)) return "it is no regular file";
    if (info.st_uid != geteuid())
        return "it belongs to user " + std::to_string(info.st_uid) + ", not to this user (" +
               std::to_string(geteuid()) + ")";
    return "";
}
#endif

// Makes sure `file` is a regular file of the user's own, creating it for
// the user alone (SQLite gives its -wal and -shm files the database's
// mode), and that its companions, where they exist, are such files too.
// Never follows a link planted at one of the names. "" when so, else why
// not and about which file.
std::string PrepareFiles(const fs::path& file) {
    for (const char* suffix : {"-wal", "-shm"}) {
        fs::path companion = file;
        companion += suffix;
#ifdef _WIN32
        const DWORD attributes = GetFileAttributesW(companion.c_str());
        if (attributes != INVALID_FILE_ATTRIBUTES &&
            (attributes & (FILE_ATTRIBUTE_REPARSE_POINT | FILE_ATTRIBUTE_DIRECTORY)) != 0)
            return Printable(companion.string()) + " is a link or a folder";
#else
        struct stat info {};
        if (lstat(companion.c_str(), &info) == 0) {
            if (const std::string why = Refusal(info); !why.empty())
                return Printable(companion.string()) + ": " + why;
        }
#endif
    }
#ifdef _WIN32
    // A reparse point (a link or a junction) is opened as itself and refused.
    const HANDLE handle = CreateFileW(file.c_str(), GENERIC_READ | GENERIC_WRITE,
                                      FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                      nullptr, OPEN_ALWAYS,
                                      FILE_ATTRIBUTE_NORMAL | FILE_FLAG_OPEN_REPARSE_POINT, nullptr);
    if (handle == INVALID_HANDLE_VALUE) return "error " + std::to_string(GetLastError());
    std::string problem;
    BY_HANDLE_FILE_INFORMATION info{};
    if (!GetFileInformationByHandle(handle, &info)) {
        problem = "error " + std::to_string(GetLastError());
    } else if ((info.dwFileAttributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0) {
        problem = "it is a link";
    } else if ((info.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0) {
        problem = "it is no regular file";
    }
    CloseHandle(handle);
    return problem;
#else
    // O_NONBLOCK: a FIFO at the name fails at once instead of waiting.
    const int fd = open(file.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
    if (fd < 0) return errno == ELOOP ? "it is a symbolic link" : std::strerror(errno);
    struct stat info {};
    std::string problem = fstat(fd, &info) != 0 ? std::strerror(errno) : Refusal(info);
    close(fd);
    return problem;
#endif
}

}  // namespace

fs::path HistoryPath() {
    if (fs::path named = EnvironmentPath("KORVTOOL_HISTORY"); !named.empty()) return named;
#ifdef _WIN32
    fs::path base = EnvironmentPath("LOCALAPPDATA");
#else
    fs::path base = EnvironmentPath("XDG_DATA_HOME");
    if (base.empty()) {
        const fs::path home = EnvironmentPath("HOME");
        if (!home.empty()) base = home / ".local" / "share";
    }
#endif
    return base.empty() ? fs::path() : base / "korvtool" / "history.sqlite";
}

std::string UtcTimeNow() {
    const std::time_t now = std::time(nullptr);
    std::tm utc{};
#ifdef _WIN32
    gmtime_s(&utc, &now);
#else
    gmtime_r(&now, &utc);
#endif
    char text[32];
    std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text;
}

std::optional<std::string> HistoryTimeBound(const std::string& text, bool endOfDay) {
    // Digits where the form has 9, the rest as it stands.
    const auto matches = [&text](const char* form) {
        if (text.size() != std::strlen(form)) return false;
        for (size_t i = 0; i < text.size(); ++i) {
            const bool digit = text[i] >= '0' && text[i] <= '9';
            if (form[i] == '9' ? !digit : text[i] != form[i]) return false;
        }
        return true;
    };
    const auto number = [&text](size_t at) { return std::stoi(text.substr(at, 2)); };
    const bool date = matches("9999-99-99");
    if (!date && !matches("9999-99-99T99:99:99Z")) return std::nullopt;
    if (number(5) < 1 || number(5) > 12 || number(8) < 1 || number(8) > 31) return std::nullopt;
    if (date) return text + (endOfDay ? "T23:59:59Z" : "T00:00:00Z");
    if (number(11) > 23 || number(14) > 59 || number(17) > 60) return std::nullopt;
    return text;
}

HistoryDatabase::~HistoryDatabase() { sqlite3_close_v2(db_); }

std::string HistoryDatabase::Why(int code) const {
    switch (code & 0xFF) {
        case SQLITE_BUSY:
        case SQLITE_LOCKED:
            return "another program held it locked for longer than " +
                   std::to_string(busyTimeout_.count() / 1000.0).substr(0, 4) + " s";
        case SQLITE_FULL:
            return "the disk is full";
        case SQLITE_READONLY:
            return "it is read-only";
        case SQLITE_CANTOPEN: {
            const int error = db_ != nullptr ? sqlite3_system_errno(db_) : 0;
            if (error == 0) return "it cannot be opened";
#ifdef _WIN32
            return "it cannot be opened: error " + std::to_string(error);  // GetLastError's
#else
            return std::string("it cannot be opened: ") + std::strerror(error);
#endif
        }
        default:
            return db_ != nullptr ? Printable(sqlite3_errmsg(db_)) : sqlite3_errstr(code);
    }
}

bool HistoryDatabase::Exec(const char* sql, std::string& problem) {
    const int code = sqlite3_exec(db_, sql, nullptr, nullptr, nullptr);
    if (code != SQLITE_OK) problem = Why(code);
    return code == SQLITE_OK;
}

bool HistoryDatabase::Open(const fs::path& file, std::string& problem,
                           std::chrono::milliseconds busyTimeout) {
    const auto fail = [&](const std::string& why) {
        problem = "the update history " + Printable(file.string()) + " could not be written: " + why;
        sqlite3_close_v2(db_);
        db_ = nullptr;
        return false;
    };
    if (file.empty()) {
        problem = "no folder for the update history (set KORVTOOL_HISTORY)";
        return false;
    }
    file_ = file;
    busyTimeout_ = busyTimeout;
    std::error_code error;
    if (file.has_parent_path()) {
        fs::create_directories(file.parent_path(), error);
        // SQLite refuses a database whose path holds a link anywhere; the
        // links among the folders are the user's own: resolved here, the
        // file's own name stays as it is.
        const fs::path folder = fs::canonical(file.parent_path(), error);
        if (!error) file_ = folder / file.filename();
    }
    // SQLITE_OPEN_NOFOLLOW came with 3.31; an older library would ignore it.
    if (sqlite3_libversion_number() < 3031000)
        return fail(std::string("korvtool needs SQLite 3.31 or later, not ") + sqlite3_libversion());
    if (const std::string why = PrepareFiles(file_); !why.empty()) return fail(why);
    int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
#ifndef _WIN32
    flags |= SQLITE_OPEN_NOFOLLOW;
#endif
    const int code = sqlite3_open_v2(PathText(file_).c_str(), &db_, flags, nullptr);
    if (code != SQLITE_OK) return fail(Why(code));
    sqlite3_extended_result_codes(db_, 1);
    sqlite3_busy_timeout(db_, static_cast<int>(busyTimeout.count()));
    // WAL: readers do not block the writer, and the writers of many
    // processes take turns, each waiting up to the busy timeout.
    {
        int prepared = SQLITE_OK;
        const Statement mode = Prepare(db_, "PRAGMA journal_mode=WAL", prepared);
        const int step = prepared == SQLITE_OK ? sqlite3_step(mode.get()) : prepared;
        if (step != SQLITE_ROW) return fail(Why(step));
        const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(mode.get(), 0));
        if (text == nullptr || std::strcmp(text, "wal") != 0)
            return fail("it does not take WAL mode");
    }
    if (std::string why; !Setup(why)) return fail(why);
    return true;
}

// The tables, and the import of the JSON-lines history, once: when the mark
// is there, nothing is written; else in one transaction that holds the
// write lock, so that of many processes starting at once one imports.
bool HistoryDatabase::Setup(std::string& problem) {
    const auto marked = [this](int& code) {
        const Statement query = Prepare(db_, "SELECT 1 FROM meta WHERE key = ?", code);
        if (code != SQLITE_OK) return false;
        sqlite3_bind_text(query.get(), 1, kImportKey, -1, SQLITE_STATIC);
        code = sqlite3_step(query.get());
        const bool found = code == SQLITE_ROW;
        if (code == SQLITE_ROW || code == SQLITE_DONE) code = SQLITE_OK;
        return found;
    };
    int code = SQLITE_OK;
    if (marked(code)) return true;  // an error here (no table yet) means: set up
    if (!Exec("BEGIN IMMEDIATE", problem)) return false;
    const auto rollback = [this](const std::string& why, std::string& out) {
        sqlite3_exec(db_, "ROLLBACK", nullptr, nullptr, nullptr);
        out = why;
        return false;
    };
    if (!Exec(kSchema, problem)) return rollback(problem, problem);
    // A new database gets this layout's number; one a later korvtool made
    // keeps its own.
    {
        const Statement query = Prepare(db_, "PRAGMA user_version", code);
        const int step = code == SQLITE_OK ? sqlite3_step(query.get()) : code;
        if (step != SQLITE_ROW) return rollback(Why(step), problem);
        if (sqlite3_column_int(query.get(), 0) == 0) {
            const std::string version = "PRAGMA user_version=" + std::to_string(kSchemaVersion);
            if (!Exec(version.c_str(), problem)) return rollback(problem, problem);
        }
    }
    if (marked(code)) return Exec("COMMIT", problem) || rollback(problem, problem);
    if (code != SQLITE_OK) return rollback(Why(code), problem);

    // The JSON-lines file of older korvtools: history.jsonl for
    // history.sqlite. A file that exists but cannot be read is left for a
    // later run to import.
    fs::path old = file_;
    old.replace_extension(".jsonl");
    imported_ = importSkipped_ = 0;
    std::error_code error;
    // Only a regular file: a FIFO planted at the name would never end.
    const bool exists = old != file_ && fs::is_regular_file(old, error);
    std::ifstream in;
    if (exists) {
        in.open(old, std::ios::binary);
        // The tables without the mark: a later run imports.
        if (!in) return Exec("COMMIT", problem) || rollback(problem, problem);
    }
    for (std::string line; exists && std::getline(in, line);) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        if (line.empty()) continue;
        const ordered_json entry = ordered_json::parse(line, nullptr, false);
        if (!entry.is_object()) {
            ++importSkipped_;
            continue;
        }
        if (const int step = Insert(db_, entry); step != SQLITE_DONE) {
            imported_ = importSkipped_ = 0;
            return rollback(Why(step), problem);
        }
        ++imported_;
    }
    const Statement mark = Prepare(db_, "INSERT INTO meta(key, value) VALUES(?, ?)", code);
    if (code != SQLITE_OK) return rollback(Why(code), problem);
    const std::string value = JsonText({{"time", UtcTimeNow()},
                                        {"file", exists ? old.string() : ""},
                                        {"imported", imported_},
                                        {"skipped", importSkipped_}});
    sqlite3_bind_text(mark.get(), 1, kImportKey, -1, SQLITE_STATIC);
    sqlite3_bind_text(mark.get(), 2, value.c_str(), -1, SQLITE_TRANSIENT);
    if (const int step = sqlite3_step(mark.get()); step != SQLITE_DONE)
        return rollback(Why(step), problem);
    if (!Exec("COMMIT", problem)) {
        imported_ = importSkipped_ = 0;
        return rollback(problem, problem);
    }
    return true;
}

bool HistoryDatabase::Append(const ordered_json& entry, std::string& problem) {
    // One statement outside a transaction is a transaction of its own.
    const int step = db_ == nullptr ? SQLITE_MISUSE : Insert(db_, entry);
    if (step == SQLITE_DONE) return true;
    problem = "the update history " + Printable(file_.string()) + " could not be written: " + Why(step);
    return false;
}

bool HistoryDatabase::Read(const HistoryFilter& filter, std::vector<ordered_json>& entries,
                           std::string& problem) {
    entries.clear();
    // The last `limit` of the matching records: newest first from the
    // database, turned round below.
    int code = SQLITE_OK;
    const Statement query = Prepare(
        db_,
        "SELECT entry FROM history WHERE (?1 IS NULL OR serial = ?1) AND (?2 IS NULL OR run = ?2)"
        " AND (?3 IS NULL OR result = ?3) AND (?4 IS NULL OR location = ?4)"
        " AND (?5 IS NULL OR time >= ?5) AND (?6 IS NULL OR time <= ?6)"
        " ORDER BY id DESC LIMIT ?7",
        code);
    if (code == SQLITE_OK) {
        int index = 1;
        for (const auto* field : {&filter.serial, &filter.run, &filter.result, &filter.location,
                                  &filter.since, &filter.until})
            BindText(query.get(), index++, *field);
        sqlite3_bind_int64(query.get(), 7,
                           filter.limit ? static_cast<sqlite3_int64>(*filter.limit) : -1);
        while ((code = sqlite3_step(query.get())) == SQLITE_ROW) {
            const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(query.get(), 0));
            ordered_json entry = ordered_json::parse(text != nullptr ? text : "", nullptr, false);
            entries.push_back(entry.is_object() ? std::move(entry) : ordered_json::object());
        }
    }
    if (code != SQLITE_DONE) {
        problem = "the update history " + Printable(file_.string()) + " could not be read: " + Why(code);
        return false;
    }
    std::reverse(entries.begin(), entries.end());
    return true;
}

bool AppendHistory(const fs::path& file, const ordered_json& entry, std::string& problem) {
    HistoryDatabase database;
    return database.Open(file, problem) && database.Append(entry, problem);
}

namespace {

// The columns a person reads: the before and after versions of both
// firmwares in one column each, the file by its name.
std::vector<std::string> PersonRow(const ordered_json& entry) {
    const std::vector<std::optional<std::string>> values = ColumnsOf(entry);
    const auto join = [&values](Column usb, Column mcu) {
        std::string text = values[usb].value_or("");
        const std::string second = values[mcu].value_or("");
        if (!text.empty() && !second.empty()) text += " / ";
        text += second;
        return text.empty() ? std::string("-") : text;
    };
    const auto field = [&values](Column column) { return values[column].value_or("-"); };
    std::string file = field(kFile);
    file.erase(0, file.find_last_of("/\\") + 1);
    std::vector<std::string> row = {field(kTime),   field(kCommand), field(kRun),
                                     field(kLocation), field(kSerial), join(kUsbBefore, kMcuBefore),
                                     join(kUsbAfter, kMcuAfter), field(kResult), file,
                                     field(kMessage)};
    for (std::string& cell : row) cell = Printable(cell);
    return row;
}

}  // namespace

std::string HistoryTable(const std::vector<ordered_json>& entries) {
    const std::vector<std::string> headers = {"TIME (UTC)", "COMMAND", "RUN", "LOCATION",
                                              "SERIAL",     "BEFORE",  "AFTER", "RESULT",
                                              "FILE",       "MESSAGE"};
    const size_t columns = headers.size();
    std::vector<std::vector<std::string>> rows(1, headers);
    for (const ordered_json& entry : entries) rows.push_back(PersonRow(entry));
    // A column no record fills (RUN and LOCATION before the first station
    // run) is left out.
    std::vector<std::pair<size_t, size_t>> shown;  // column, width
    for (size_t c = 0; c < columns; ++c) {
        size_t width = 0;
        bool filled = false;
        for (size_t r = 0; r < rows.size(); ++r) {
            width = std::max(width, rows[r][c].size());
            filled = filled || (r > 0 && rows[r][c] != "-");
        }
        if (filled) shown.emplace_back(c, width);
    }
    std::string text;
    for (const auto& row : rows) {
        std::string line;
        for (size_t s = 0; s < shown.size(); ++s) {
            const auto [c, width] = shown[s];
            line += row[c];
            if (s + 1 < shown.size()) line += std::string(width - row[c].size() + 2, ' ');
        }
        text += line + "\n";
    }
    return text;
}

std::string CsvCell(const std::string& raw) {
    std::string text = Printable(raw);
    if (!text.empty() && std::strchr("=+-@", text[0]) != nullptr) text.insert(text.begin(), '\'');
    if (text.find_first_of(",\"") == std::string::npos) return text;
    std::string quoted = "\"";
    for (const char c : text) {
        if (c == '"') quoted += '"';  // doubled
        quoted += c;
    }
    quoted += '"';
    return quoted;
}

std::string HistoryCsv(const std::vector<ordered_json>& entries) {
    const auto cell = [](const std::string& raw) { return CsvCell(raw); };
    std::string text;
    for (size_t c = 0; c < kColumnCount; ++c) {
        if (c > 0) text += ',';
        text += kColumns[c];
    }
    text += "\r\n";
    for (const ordered_json& entry : entries) {
        const std::vector<std::optional<std::string>> values = ColumnsOf(entry);
        for (size_t c = 0; c < kColumnCount; ++c) {
            if (c > 0) text += ',';
            text += cell(values[c].value_or(""));
        }
        text += "\r\n";
    }
    return text;
}

}  // namespace korvtool
