#include "support/test_support.h"

#include <mutex>

#include <atomic>
#include <chrono>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace korvsdk_test {

TempFolder::TempFolder() {
    static std::atomic<int> counter{0};
    const auto stamp = std::chrono::steady_clock::now().time_since_epoch().count();
    for (int attempt = 0; attempt < 100; ++attempt) {
        fs::path candidate = fs::temp_directory_path() /
                             ("korvsdk-test-" + std::to_string(stamp) + "-" +
                              std::to_string(counter++));
        std::error_code failed;
        if (fs::create_directory(candidate, failed)) {
            path_ = fs::canonical(candidate);
            return;
        }
    }
    throw std::runtime_error("cannot create a temporary folder");
}

TempFolder::~TempFolder() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
}

WorkingFolder::WorkingFolder(const fs::path& folder) : previous_(fs::current_path()) {
    fs::current_path(folder);
}

WorkingFolder::~WorkingFolder() {
    std::error_code ignored;
    fs::current_path(previous_, ignored);
}

void WriteFile(const fs::path& file, const std::string& content) {
    std::ofstream out(file, std::ios::binary | std::ios::trunc);
    out << content;
    if (!out) throw std::runtime_error("cannot write " + file.string());
}

std::string ReadFile(const fs::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<fs::path> FilesStartingWith(const fs::path& folder, const std::string& prefix) {
    std::vector<fs::path> found;
    std::error_code failed;
    for (fs::directory_iterator it(folder, failed), end; !failed && it != end;
         it.increment(failed)) {
        if (it->is_regular_file() && it->path().filename().string().rfind(prefix, 0) == 0)
            found.push_back(it->path());
    }
    return found;
}

// The library calls the handler from its worker and light threads too.
namespace {
std::mutex& LogMutex() {
    static std::mutex mutex;
    return mutex;
}
}  // namespace

void MessageLog::Collect(const char* text) {
    std::lock_guard lock(LogMutex());
    Texts().emplace_back(text != nullptr ? text : "");
}

void MessageLog::Clear() {
    std::lock_guard lock(LogMutex());
    Texts().clear();
}

std::vector<std::string>& MessageLog::Texts() {
    static std::vector<std::string> texts;
    return texts;
}

std::string MessageLog::All() {
    std::lock_guard lock(LogMutex());
    std::string joined;
    for (const std::string& text : Texts()) joined += text;
    return joined;
}

int MessageLog::Count(const std::string& text) {
    std::lock_guard lock(LogMutex());
    int count = 0;
    for (const std::string& collected : Texts()) count += collected == text ? 1 : 0;
    return count;
}

}  // namespace korvsdk_test
