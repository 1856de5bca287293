// A complete small program on the C++ class face: selects the first capture
// device with the C API, asks the tool core for its audio settings, and with
// a second argument sets the headphone volume and shows what the device
// holds afterwards.
//
//   g++ -std=c++17 quickstart.cpp $(pkg-config --cflags --libs KORVSDKDeviceTool)
//   ./a.out [setting.cfg [VOLUME]]
//
// The class face needs the library's own compiler (see the README).
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <thread>

#include "KORVSDKDeviceTool.h"
#include "VideoConsoleCore.h"

namespace vc = VideoConsoleCore;

namespace {

// The audio callback runs on the thread of runCommand; the record is the
// library's and gone when the callback returns, so it is copied.
std::optional<vc::AudioControl> g_audio;
bool OnAudio(void* record) {
    g_audio = *static_cast<const vc::AudioControl*>(record);
    return true;
}

void Print(const char* what, const vc::AudioControl& audio) {
    std::printf("%s: headphone volume %u (mute %u), microphone volume %u (mute %u)\n", what,
                audio.hpOutVolume, audio.hpOutMute, audio.micInVolume, audio.micInMute);
}

}  // namespace

int main(int argc, char** argv) {
    if (!KORVSDK_Init(argc > 1 ? argv[1] : "setting.cfg")) {
        std::fprintf(stderr, "the library could not start\n");
        return 1;
    }
    DeviceEntry* devices = nullptr;
    uint16_t count = 0;
    if (!KORVSDK_Scan_DeviceList(&devices, &count) || count == 0 ||
        !KORVSDK_Select_Device(&devices[0])) {
        std::fprintf(stderr, "no capture device could be selected\n");
        KORVSDK_Free_DeviceList(&devices, &count);
        return 1;
    }
    std::printf("device %s:%s %s\n", devices[0].vid, devices[0].pid, devices[0].instance);
    KORVSDK_Free_DeviceList(&devices, &count);

    std::unique_ptr<vc::ToolCoreInterface> tool(vc::createToolCore());
    tool->init();  // ties the tool core to the library started above
    tool->CB_RegisterAudioInfo(OnAudio);
    tool->start();
    // The tool core takes commands once its start-up worker has run; from
    // then on it refuses a command it does not know.
    for (int i = 0; i < 400 && tool->runCommand(-1, nullptr, nullptr); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));

    vc::AudioControl query;
    query.query = 1;
    tool->runCommand(vc::kCommandAudio, &query, nullptr);
    if (!g_audio) {
        std::fprintf(stderr, "the device did not report its audio settings\n");
        return 1;
    }
    Print("now", *g_audio);

    if (argc > 2) {
        vc::AudioControl change = *g_audio;
        change.query = 0;
        change.reportBack = 1;  // the callback shows what the device holds then
        change.hpOutVolume = static_cast<uint8_t>(std::atoi(argv[2]));
        g_audio.reset();
        tool->runCommand(vc::kCommandAudio, &change, nullptr);
        if (!g_audio) {
            std::fprintf(stderr, "the change was not reported back\n");
            return 1;
        }
        Print("after", *g_audio);
    }
    tool->exit();
    return 0;
}
