// The update history in its SQLite database: the import of the old
// JSON-lines file, the filters, the CSV form, many writers at once, a locked
// database and links planted at its names.
#include <gtest/gtest.h>

#include <sqlite3.h>

#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#ifndef _WIN32
#include <sys/stat.h>
#include <unistd.h>
#endif

#include "history.h"
#include "support/test_support.h"

namespace korvtool {
namespace {

namespace fs = std::filesystem;
using nlohmann::ordered_json;
using korvsdk_test::ReadFile;
using korvsdk_test::WriteFile;

// The "message" of each entry, which the tests use as its name.
std::vector<std::string> Names(const std::vector<ordered_json>& entries) {
    std::vector<std::string> names;
    for (const ordered_json& entry : entries) names.push_back(entry.value("message", "?"));
    return names;
}

std::vector<ordered_json> ReadAll(const fs::path& file, const HistoryFilter& filter = {}) {
    HistoryDatabase database;
    std::vector<ordered_json> entries;
    std::string problem;
    EXPECT_TRUE(database.Open(file, problem) && database.Read(filter, entries, problem)) << problem;
    return entries;
}

// The JSON lines of older versions come over once, with their keys and
// order; a line that is no entry is counted and left out; the old file stays.
TEST(HistoryDatabase, ImportsTheOldFileOnce) {
    const korvsdk_test::TempFolder folder;
    const fs::path old = folder.path() / "history.jsonl";
    const std::string lines =
        "{\"time\":\"2026-11-20T10:00:00Z\",\"kind\":\"usb\",\"zeta\":1,\"message\":\"one\"}\n"
        "not an entry\n"
        "{\"kind\":\"backup\",\"message\":\"two\"}\r\n";
    WriteFile(old, lines);
    HistoryDatabase first;
    std::string problem;
    ASSERT_TRUE(first.Open(folder.path() / "history.sqlite", problem)) << problem;
    EXPECT_EQ(first.Imported(), 2u);
    EXPECT_EQ(first.ImportSkipped(), 1u);
    std::vector<ordered_json> entries;
    ASSERT_TRUE(first.Read({}, entries, problem)) << problem;
    ASSERT_EQ(Names(entries), (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(entries[0].dump(), ordered_json::parse(lines.substr(0, lines.find('\n'))).dump());

    WriteFile(old, lines + "{\"message\":\"three\"}\n");
    HistoryDatabase second;
    ASSERT_TRUE(second.Open(folder.path() / "history.sqlite", problem)) << problem;
    EXPECT_EQ(second.Imported(), 0u);
    EXPECT_EQ(Names(ReadAll(folder.path() / "history.sqlite")),
              (std::vector<std::string>{"one", "two"}));
    EXPECT_EQ(ReadFile(old), lines + "{\"message\":\"three\"}\n");
}

TEST(HistoryDatabase, FiltersSelectTheirRecords) {
    const korvsdk_test::TempFolder folder;
    const fs::path file = folder.path() / "history.sqlite";
    const auto station = [](const char* time, const char* run, const char* location,
                            const char* serial, const char* result, const char* name) {
        return ordered_json{{"time", time},         {"command", "station"}, {"run", run},
                            {"location", location}, {"serial", serial},     {"result", result},
                            {"message", name}};
    };
    const ordered_json records[] = {
        {{"time", "2026-11-22T08:00:00Z"}, {"serial", "S1"}, {"kind", "usb"},
         {"result", "confirmed"}, {"message", "e1"}},
        station("2026-11-23T14:05:09Z", "R1", "1-4.1", "S2", "pass", "e2"),
        station("2026-11-23T23:59:59Z", "R1", "1-4.2", "S1", "fail", "e3"),
        station("2026-11-24T00:00:00Z", "R2", "1-4.1", "S3", "pass", "e4"),
    };
    for (const ordered_json& record : records) {
        std::string problem;
        ASSERT_TRUE(AppendHistory(file, record, problem)) << problem;
    }
    const auto since = [](const char* t) { return HistoryTimeBound(t, false); };
    const auto until = [](const char* t) { return HistoryTimeBound(t, true); };
    struct Row {
        HistoryFilter filter;
        std::vector<std::string> names;
    };
    const Row rows[] = {
        {{}, {"e1", "e2", "e3", "e4"}},
        {{.serial = "S1"}, {"e1", "e3"}},
        {{.run = "R1"}, {"e2", "e3"}},
        {{.result = "pass"}, {"e2", "e4"}},
        {{.location = "1-4.1"}, {"e2", "e4"}},
        {{.since = since("2026-11-23")}, {"e2", "e3", "e4"}},
        {{.until = until("2026-11-23")}, {"e1", "e2", "e3"}},
        {{.since = since("2026-11-23T14:05:10Z")}, {"e3", "e4"}},
        {{.until = until("2026-11-23T14:05:09Z")}, {"e1", "e2"}},
        {{.limit = 2}, {"e3", "e4"}},
        {{.serial = "S1", .result = "fail"}, {"e3"}},
        {{.serial = "S9"}, {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.names));
        EXPECT_EQ(Names(ReadAll(file, row.filter)), row.names);
    }
    for (const char* text : {"2026-11-23T14:05:09", "2026-13-01", "2026-11-23T24:00:00Z",
                             "23.11.2026", "2026-11-2x", ""})
        EXPECT_EQ(HistoryTimeBound(text, false), std::nullopt) << text;
}

// A cell of a device's text: quoted as RFC 4180 wants, a formula kept as
// text, a control character escaped.
TEST(HistoryCsv, QuotesNeutralisesAndEscapes) {
    const std::pair<const char*, const char*> rows[] = {
        {"plain", "plain"},
        {"a,b", "\"a,b\""},
        {"say \"hi\"", "\"say \"\"hi\"\"\""},
        {"=1+2", "'=1+2"},
        {"+1", "'+1"},
        {"-2", "'-2"},
        {"@SUM(A1)", "'@SUM(A1)"},
        {"=HYPERLINK(\"x\",\"y\")", "\"'=HYPERLINK(\"\"x\"\",\"\"y\"\")\""},
        {"line\nbreak\x1b[2J", "line\\x0abreak\\x1b[2J"},
        {"a=b", "a=b"},
    };
    for (const auto& [text, cell] : rows) {
        const std::string csv = HistoryCsv({{{"message", text}}});
        const std::string line = csv.substr(csv.find("\r\n") + 2);
        EXPECT_EQ(line, std::string(",,,,,,,,,") + cell + ",,,,,\r\n") << text;
    }
    EXPECT_EQ(HistoryCsv({}).rfind("time,command,run,station,location,serial,", 0), 0u);
}

// Eight writers, each with connections of its own, fifty records each, all
// starting on a database that does not exist yet: every record arrives.
TEST(HistoryDatabase, ConcurrentWritersLoseNothing) {
    const korvsdk_test::TempFolder folder;
    const fs::path file = folder.path() / "history.sqlite";
    constexpr int kWriters = 8, kRecords = 50;
    std::vector<std::string> problems(kWriters);
    std::vector<std::thread> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.emplace_back([&, w] {
            for (int r = 0; r < kRecords; ++r) {
                const ordered_json entry = {{"serial", "W" + std::to_string(w)},
                                            {"message", std::to_string(w) + "." + std::to_string(r)}};
                if (!AppendHistory(file, entry, problems[w])) return;
            }
        });
    }
    for (std::thread& writer : writers) writer.join();
    for (const std::string& problem : problems) EXPECT_EQ(problem, "");
    std::vector<std::string> names = Names(ReadAll(file));
    std::sort(names.begin(), names.end());
    std::vector<std::string> expected;
    for (int w = 0; w < kWriters; ++w)
        for (int r = 0; r < kRecords; ++r) expected.push_back(std::to_string(w) + "." + std::to_string(r));
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(names, expected);
}

// A connection that holds the write lock past the busy timeout: the record
// is not written, the reason says so, and the records before are intact.
TEST(HistoryDatabase, ALockedDatabaseRefusesTheRecordAndKeepsTheOthers) {
    const korvsdk_test::TempFolder folder;
    const fs::path file = folder.path() / "history.sqlite";
    std::string problem;
    for (const char* name : {"a", "b"})
        ASSERT_TRUE(AppendHistory(file, {{"message", name}}, problem)) << problem;
    sqlite3* holder = nullptr;
    ASSERT_EQ(sqlite3_open(file.string().c_str(), &holder), SQLITE_OK);
    ASSERT_EQ(sqlite3_exec(holder, "BEGIN IMMEDIATE", nullptr, nullptr, nullptr), SQLITE_OK);
    HistoryDatabase waiting;
    ASSERT_TRUE(waiting.Open(file, problem, std::chrono::milliseconds(200))) << problem;
    EXPECT_FALSE(waiting.Append({{"message", "c"}}, problem));
    EXPECT_NE(problem.find("locked for longer than 0.20 s"), std::string::npos) << problem;
    EXPECT_NE(problem.find(file.filename().string()), std::string::npos) << problem;
    sqlite3_exec(holder, "ROLLBACK", nullptr, nullptr, nullptr);
    sqlite3_close(holder);
    EXPECT_EQ(Names(ReadAll(file)), (std::vector<std::string>{"a", "b"}));
}

#ifndef _WIN32
// The database and its companions are made for the user alone; a link
// planted at one of their names, or another user's file there, is neither
// written through nor used.
TEST(HistoryDatabase, RefusesPlantedLinksAndForeignFiles) {
    const korvsdk_test::TempFolder folder;
    const fs::path file = folder.path() / "history.sqlite";
    const fs::path victim = folder.path() / "victim";
    const fs::path missing = folder.path() / "missing";
    std::string problem;
    ASSERT_TRUE(AppendHistory(file, {{"serial", "SN"}}, problem)) << problem;
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);

    const auto link = [&](const char* suffix, const fs::path& target) {
        return [&, suffix, target] { return symlink(target.c_str(), (file.string() + suffix).c_str()); };
    };
    struct Row {
        const char* name;
        std::function<int()> plant;
        const char* why;
    };
    const Row rows[] = {
        {"link to a file", link("", victim), "symbolic link"},
        {"link to nothing", link("", missing), "symbolic link"},
        {"-wal a link", link("-wal", victim), "symbolic link"},
        {"-shm a link to nothing", link("-shm", missing), "symbolic link"},
        {"file of another user",
         [&] {
             WriteFile(file, "victim\n");
             return chown(file.c_str(), 65534, 65534);
         },
         "belongs to user 65534"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        if (geteuid() != 0 && std::string(row.name) == "file of another user") continue;
        for (const char* suffix : {"", "-wal", "-shm"}) fs::remove(file.string() + suffix);
        WriteFile(victim, "victim\n");
        ASSERT_EQ(row.plant(), 0);
        problem.clear();
        EXPECT_FALSE(AppendHistory(file, {{"serial", "SN"}}, problem));
        EXPECT_NE(problem.find(file.string()), std::string::npos) << problem;
        EXPECT_NE(problem.find(row.why), std::string::npos) << problem;
        EXPECT_EQ(ReadFile(victim), "victim\n");
        EXPECT_FALSE(fs::exists(missing));
    }
}
#endif  // _WIN32

}  // namespace
}  // namespace korvtool
