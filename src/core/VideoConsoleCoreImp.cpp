#include "core/VideoConsoleCoreImp.h"

#include "hid/backend/backend_factory.h"
#include "firmware/firmware_file.h"
#include "firmware/lights.h"
#include "firmware/update_common.h"
#include "hid/backend/hid_backend.h"
#include "platform/platform.h"

#include <cstdlib>
#include <cstring>

namespace VideoConsoleCore {

namespace {
constexpr size_t kInfoRecordSize = 40;
}

const char kStaticEmptyText[1] = "";

std::atomic<VideoConsoleCoreImp*> g_VC_CorePointer{nullptr};

// Constructed when the library is loaded, destroyed when it is unloaded.
VideoConsoleCoreImp g_VC_Core;

VideoConsoleCoreImp::VideoConsoleCoreImp() { g_VC_CorePointer = this; }

VideoConsoleCoreImp::~VideoConsoleCoreImp() {
    VideoConsoleCoreImp* self = this;
    g_VC_CorePointer.compare_exchange_strong(self, nullptr);
    // No thread of the library outlives the core. An update that is still
    // writing is let finish (stopping it would leave the flash half
    // written); its end may start the finish lights, which stop next.
    // This may run on one of those threads itself: a host's callback that
    // calls exit(), or on Windows the DLL's last reference going as a thread
    // of the library ends. A join never waits for the thread it runs on.
    firmware::JoinUpdateThread(*this);
    firmware::StopLightThreads(*this, true);
    // These end within one poll: m_stopping is set.
    platform::JoinThread(m_systemReportThread);
    platform::JoinThread(m_previewThread);
    firmware::CloseFirmwareFile(*this);
    // The selected device's interface stays open for the life of the core.
    CloseOpenInterface();
    std::free(m_infoRecord1);
    std::free(m_infoRecord2);
}

void VideoConsoleCoreImp::CloseOpenInterface(hid::HidHandle keep) {
    if (m_hidBackend) {
        if (m_preparsedData != nullptr) m_hidBackend->FreePreparsedData(m_preparsedData);
        if (m_deviceHandle != hid::kInvalidHidHandle && m_deviceHandle != keep)
            m_hidBackend->Close(m_deviceHandle);
    }
    m_preparsedData = nullptr;
    m_deviceHandle = hid::kInvalidHidHandle;
    m_deviceOpen = false;
}

void VideoConsoleCoreImp::UseHidBackend(std::unique_ptr<hid::HidBackend> backend) {
    m_hidBackend = std::move(backend);
}

bool VideoConsoleCoreImp::Initialize(const char* settingsPath) {
    if (m_initialized) {
        DebugOut("Already initialized!\n");
        return false;
    }
    if (m_infoRecord2 == nullptr) {
        m_infoRecord2 = static_cast<uint8_t*>(std::calloc(1, kInfoRecordSize));
    }
    m_settingsPath = settingsPath != nullptr ? settingsPath : "";
    ReadSettings();

    // Only an explicit "0" switches the file log off; a missing key reads as
    // "" and so starts the logger.
    if (Setting("EnableLocalLogging") != "0") {
        StartLogger();
    } else {
        m_localLogging = false;
    }
    ApplyBurnAreaSetting();

    std::string note;
    m_hidBackend = hid::CreateHidBackend(Setting("DeviceBackend"), m_settings, note);
    if (!note.empty()) Report(note + "\n");

    DebugOut("Initialization successful!\n");
    m_initialized = true;
    return true;
}

}  // namespace VideoConsoleCore
