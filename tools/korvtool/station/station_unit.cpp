// The worker's side of the station: one unit, selected by its location.
#include <chrono>
#include <cmath>
#include <filesystem>
#include <optional>
#include <csignal>
#include <cstdio>
#include <functional>

#include "errors.h"
#include "history.h"
#include "safe_text.h"
#include "station.h"
#include "update.h"

namespace korvtool::station {

using nlohmann::ordered_json;

namespace {

// "20261125T014500Z": a time for file names.
std::string CompactTime() {
    std::string time = UtcTimeNow();  // 2026-11-25T01:45:00Z
    std::string compact;
    for (const char c : time)
        if (c != '-' && c != ':') compact += c;
    return compact;
}

class UnitRun {
public:
    UnitRun(Session& session, const UnitJob& job)
        : session_(session), job_(job), display_(DisplayMode::kJson, stdout, stderr) {
        entry_ = {{"time", UtcTimeNow()}, {"command", "station"}, {"run", job.run},
                  {"station", job.station}, {"location", job.location}, {"serial", ""},
                  {"vid_pid", ""}, {"model", ""}, {"attempt", job.attempt},
                  {"usb_file", job.recipe.usbFile}, {"mcu_file", job.recipe.mcuFile},
                  {"usb_before", ""}, {"usb_after", ""}, {"mcu_before", ""}, {"mcu_after", ""},
                  {"steps", ordered_json::array()}, {"result", ""}, {"message", ""}};
    }

    int Run() {
        try {
            Work();
        } catch (const ToolError& e) {
            entry_["result"] = "fail";
            entry_["message"] = e.what();
            // A unit pulled out makes the library's words misleading (a
            // file check then reads as a refusal): said first.
            if (!StillPlugged()) {
                entry_["message"] = "the unit was unplugged: " + std::string(e.what());
                retry_ = true;
            }
        } catch (const std::exception& e) {
            entry_["result"] = "fail";
            entry_["message"] = std::string("unexpected failure: ") + e.what();
        }
        std::string problem;
        if (!AppendHistory(HistoryPath(), entry_, problem))
            display_.Note("korvtool: warning: " + problem);
        Emit({{"event", "done"},
              {"result", entry_["result"]},
              {"message", entry_["message"]},
              {"usb_after", entry_["usb_after"]},
              {"mcu_after", entry_["mcu_after"]},
              {"steps", entry_["steps"]},
              {"retry", retry_},
              {"recorded", problem.empty()}});
        return entry_["result"] == "fail" ? kExitFailure : kExitSuccess;
    }

private:
    bool StillPlugged() {
        try {
            for (const DeviceInfo& device : session_.Scan())
                if (device.location == job_.location) return true;
        } catch (const ToolError&) {
        }
        return false;
    }

    void Emit(const ordered_json& event) { display_.Event(event, ""); }

    // One step: announced, timed, and recorded whatever its end.
    void Step(const char* name, const std::function<void()>& work) {
        Emit({{"event", "step"}, {"step", name}, {"state", "begin"}});
        const auto start = std::chrono::steady_clock::now();
        const auto seconds = [&start] {
            const double s = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            return std::round(s * 100.0) / 100.0;
        };
        try {
            work();
        } catch (...) {
            entry_["steps"].push_back({{"step", name}, {"result", "failed"}, {"seconds", seconds()}});
            Emit({{"event", "step"}, {"step", name}, {"result", "failed"}, {"seconds", seconds()}});
            throw;
        }
        entry_["steps"].push_back({{"step", name}, {"result", "ok"}, {"seconds", seconds()}});
        Emit({{"event", "step"}, {"step", name}, {"result", "ok"}, {"seconds", seconds()}});
    }

    UpdateRequest Request(bool mcu) const {
        UpdateRequest request;
        request.mcu = mcu;
        request.file = mcu ? job_.recipe.mcuFile : job_.recipe.usbFile;
        request.recordHistory = false;
        request.waitReplugSeconds = job_.recipe.waitReplugSeconds;
        return request;
    }

    void Work() {
        const DeviceChoice choice(job_.location);
        const size_t index = session_.Select(choice);
        const DeviceInfo device = session_.Devices()[index];
        entry_["serial"] = device.serial;
        entry_["vid_pid"] = device.vid + ":" + device.pid;
        entry_["model"] = device.description;
        const bool usb = !job_.recipe.usbFile.empty();
        const bool mcu = !job_.recipe.mcuFile.empty();

        // The file checks first: a refused image writes nothing at all.
        // A refused image stays refused: no use trying the unit again.
        std::optional<ImageCheck> usbCheck, mcuCheck;
        retry_ = false;
        Step("check", [&] {
            if (mcu) mcuCheck = CheckImage(session_, choice, Request(true));
            if (usb) usbCheck = CheckImage(session_, choice, Request(false));
        });
        retry_ = true;
        if (usbCheck) entry_["usb_before"] = usbCheck->before;
        if (mcuCheck) entry_["mcu_before"] = mcuCheck->before;
        Emit({{"event", "unit"},
              {"serial", device.serial},
              {"vid_pid", entry_["vid_pid"]},
              {"model", device.description},
              {"attempt", job_.attempt},
              {"usb_before", entry_["usb_before"]},
              {"mcu_before", entry_["mcu_before"]},
              {"usb_file_version", usbCheck ? usbCheck->fileVersion : ""},
              {"mcu_file_version", mcuCheck ? mcuCheck->fileVersion : ""}});

        const bool writeUsb = usbCheck && !usbCheck->upToDate;
        const bool writeMcu = mcuCheck && !mcuCheck->upToDate;
        if (!writeUsb && !writeMcu) {
            entry_["usb_after"] = entry_["usb_before"];
            entry_["mcu_after"] = entry_["mcu_before"];
            entry_["result"] = "up to date";
            entry_["message"] = "the unit already runs the image's versions: nothing written";
            return;
        }

        if (!job_.recipe.backupDir.empty()) {
            const std::string file = (std::filesystem::path(job_.recipe.backupDir) /
                                      (FileNamePart(device.serial.empty() ? job_.location : device.serial) +
                                       "-" + CompactTime() + ".hex"))
                                         .string();
            Step("backup", [&] { RunBackup(session_, choice, file, display_, false); });
            entry_["backup"] = file;
        }
        // The microcontroller first, then the bridge's flash: the new USB
        // firmware starts only at the re-plug, which then confirms both.
        UpdateRequest mcuRequest = Request(true), usbRequest = Request(false);
        mcuRequest.waitReplugSeconds.reset();
        usbRequest.waitReplugSeconds.reset();
        if (writeMcu) Step("mcu", [&] { RunUpdate(session_, choice, mcuRequest, display_); });
        if (writeUsb) Step("usb", [&] { RunUpdate(session_, choice, usbRequest, display_); });

        if (job_.recipe.waitReplugSeconds) {
            Step("replug", [&] {
                // The bridge's firmware changes only with the re-plug; the
                // microcontroller's version is checked once the unit is back.
                const bool confirmMcu = !writeUsb;
                const ImageCheck& check = confirmMcu ? *mcuCheck : *usbCheck;
                ConfirmAfterReplug(session_, device, choice, Request(confirmMcu),
                                   check.fileVersion, check.before, display_);
                if (writeMcu && !confirmMcu) {
                    const DeviceChoice same = device.serial.empty() ? choice : DeviceChoice(device.serial);
                    if (!CheckImage(session_, same, Request(true)).upToDate)
                        throw Failure("the unit came back running microcontroller version " +
                                      InstalledVersion(session_, true) + ", not the image's " +
                                      mcuCheck->fileVersion);
                }
            });
        }
        // What a unit runs after its writes shows only after its re-plug:
        // until then the bridge runs its old firmware and the
        // microcontroller restarts.
        if (job_.recipe.waitReplugSeconds) {
            if (usb) entry_["usb_after"] = InstalledVersion(session_, false);
            if (mcu) entry_["mcu_after"] = InstalledVersion(session_, true);
        }
        entry_["result"] = "pass";
        entry_["message"] = job_.recipe.waitReplugSeconds
                                ? "written and confirmed after the re-plug"
                                : "written; the unit runs the new firmware after a re-plug";
    }

    Session& session_;
    const UnitJob& job_;
    ProgressDisplay display_;
    ordered_json entry_;
    bool retry_ = true;  // whether another attempt could end otherwise
};

}  // namespace

int RunStationUnit(Session& session, const UnitJob& job) {
#ifdef SIGPIPE
    // A worker whose station is gone still finishes its unit: its lines of
    // output then go nowhere instead of ending it.
    std::signal(SIGPIPE, SIG_IGN);
#endif
    return UnitRun(session, job).Run();
}

}  // namespace korvtool::station
