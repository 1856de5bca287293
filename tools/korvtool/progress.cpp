#include "progress.h"

#include <algorithm>
#include <cmath>

#include "safe_text.h"

namespace korvtool {

using nlohmann::ordered_json;

namespace {

constexpr int kBarWidth = 30;

std::string Rate(double bytesPerSecond) {
    char text[32];
    if (bytesPerSecond >= 1024.0 * 1024.0)
        std::snprintf(text, sizeof text, "%.1f MiB/s", bytesPerSecond / (1024.0 * 1024.0));
    else
        std::snprintf(text, sizeof text, "%.0f KiB/s", bytesPerSecond / 1024.0);
    return text;
}

}  // namespace

std::string PhaseOf(const std::string& state, const std::string& message, bool mcu) {
    if (state == "Updating initialization") return "Preparing";
    if (state == "Reading") return "Reading";
    if (state != "Updating") return "";
    if (message.find("verifying") != std::string::npos) return "Verifying";
    return mcu ? "Programming" : "Writing";
}

std::string Bar(double percent, int width) {
    const double clamped = std::clamp(percent, 0.0, 100.0);
    const int filled = static_cast<int>(clamped / 100.0 * width + 0.5);
    // Filled in place: GCC 12's Release build warns falsely (-Wrestrict)
    // about the concatenation of temporaries.
    std::string bar(static_cast<size_t>(width) + 2, '.');
    bar.front() = '[';
    bar.back() = ']';
    bar.replace(1, static_cast<size_t>(filled), static_cast<size_t>(filled), '#');
    return bar;
}

std::string Duration(double seconds) {
    const long total = std::lround(std::max(0.0, seconds));
    char text[32];
    if (total >= 3600)
        std::snprintf(text, sizeof text, "%ld:%02ld:%02ld", total / 3600, total / 60 % 60, total % 60);
    else
        std::snprintf(text, sizeof text, "%ld:%02ld", total / 60, total % 60);
    return text;
}

ProgressDisplay::ProgressDisplay(DisplayMode mode, FILE* out, FILE* err)
    : mode_(mode), out_(out), err_(err) {}

void ProgressDisplay::Start(const ordered_json& details) {
    std::lock_guard lock(mutex_);
    if (mode_ == DisplayMode::kJson) {
        ordered_json event = {{"event", "start"}};
        event.update(details);
        Emit(event);
        return;
    }
    // The device's name and the image's version are theirs: escaped.
    const auto field = [&details](const char* key) { return Printable(details.value(key, "")); };
    const std::string kind = details.value("kind", "");
    if (kind == "backup") {
        std::fprintf(out_, "Reading the USB flash of %s into %s\n", field("device").c_str(),
                     field("file").c_str());
    } else {
        std::fprintf(out_, "Updating %s firmware of %s with %s (version %s)\n", kind.c_str(),
                     field("device").c_str(), field("file").c_str(),
                     field("file_version").c_str());
    }
    std::fflush(out_);
}

void ProgressDisplay::Event(const ordered_json& event, const std::string& text) {
    std::lock_guard lock(mutex_);
    if (mode_ == DisplayMode::kJson) {
        Emit(event);
        return;
    }
    ClearBar();
    std::fprintf(out_, "%s\n", Printable(text).c_str());
    std::fflush(out_);
}

void ProgressDisplay::Progress(const std::string& phase, double percent,
                               std::optional<double> phaseBytes) {
    std::lock_guard lock(mutex_);
    const auto now = std::chrono::steady_clock::now();
    if (phase != phase_) {
        if (mode_ == DisplayMode::kTerminal && drawn_ > 0) {
            std::fputc('\n', out_);  // the finished phase's bar stays
            drawn_ = 0;
        }
        phase_ = phase;
        phaseStart_ = now;
        lastLineStep_ = -1;
        rate_.reset();
        left_.reset();
    }
    percent_ = percent;
    const double elapsed = std::chrono::duration<double>(now - phaseStart_).count();
    if (elapsed > 0.2 && percent > 0.0) {
        left_ = elapsed * (100.0 - percent) / percent;
        if (phaseBytes) rate_ = *phaseBytes * percent / 100.0 / elapsed;
    }
    switch (mode_) {
        case DisplayMode::kJson: {
            ordered_json event = {{"event", "progress"}, {"phase", phase},
                                  {"percent", std::round(percent * 10.0) / 10.0}};
            if (rate_) event["bytes_per_second"] = std::lround(*rate_);
            if (left_) event["seconds_left"] = std::lround(*left_);
            Emit(event);
            break;
        }
        case DisplayMode::kLines: {
            // A line per phase start and per tenth, so that a log stays short.
            const int step = static_cast<int>(percent / 10.0);
            if (step == lastLineStep_) break;
            lastLineStep_ = step;
            ClearBar();
            DrawBar();
            std::fputc('\n', out_);
            drawn_ = 0;
            break;
        }
        case DisplayMode::kTerminal: DrawBar(); break;
    }
    std::fflush(out_);
}

void ProgressDisplay::Note(const std::string& text) {
    // Notes quote the library, which quotes the device.
    const std::string line = Printable(text);
    std::lock_guard lock(mutex_);
    if (mode_ == DisplayMode::kTerminal && drawn_ > 0) {
        ClearBar();
        std::fflush(out_);
        std::fprintf(err_, "%s\n", line.c_str());
        std::fflush(err_);
        DrawBar();
        std::fflush(out_);
        return;
    }
    std::fprintf(err_, "%s\n", line.c_str());
    std::fflush(err_);
}

void ProgressDisplay::End(bool ok, const std::string& state, const std::string& message) {
    std::lock_guard lock(mutex_);
    if (mode_ == DisplayMode::kJson) {
        Emit({{"event", "end"}, {"ok", ok}, {"state", state}, {"message", message}});
        return;
    }
    // The last record of a phase comes a little before its end: a phase
    // that ended well is shown whole.
    if (ok && !phase_.empty() && percent_ < 100.0) {
        percent_ = 100.0;
        left_ = 0.0;
        ClearBar();
        DrawBar();
        if (mode_ == DisplayMode::kLines) std::fputc('\n', out_);
    }
    if (drawn_ > 0) {
        std::fputc('\n', out_);
        drawn_ = 0;
    }
    phase_.clear();
    std::fflush(out_);
}

void ProgressDisplay::ClearBar() {
    if (mode_ != DisplayMode::kTerminal || drawn_ == 0) return;
    // Blanks over the old bar rather than an escape sequence: a Windows
    // console without virtual-terminal mode shows escapes as text.
    std::fprintf(out_, "\r%s\r", std::string(drawn_, ' ').c_str());
    drawn_ = 0;
}

void ProgressDisplay::DrawBar() {
    char percent[16];
    std::snprintf(percent, sizeof percent, "%5.1f%%", percent_);
    std::string line = phase_;
    line.resize(std::max<size_t>(line.size(), 12), ' ');
    line += Bar(percent_, kBarWidth) + " " + percent;
    if (rate_) line += "  " + Rate(*rate_);
    if (left_) line += "  " + Duration(*left_) + " left";
    if (mode_ == DisplayMode::kTerminal) {
        // Pad over a longer previous line, then stay on this one.
        if (line.size() < drawn_) line += std::string(drawn_ - line.size(), ' ');
        std::fprintf(out_, "\r%s", line.c_str());
        drawn_ = line.size();
    } else {
        std::fputs(line.c_str(), out_);
    }
}

void ProgressDisplay::Emit(const ordered_json& event) {
    std::fprintf(out_, "%s\n", JsonText(event).c_str());
    std::fflush(out_);
}

}  // namespace korvtool
