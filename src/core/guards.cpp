// Call guards. A device operation checks, in this order and stopping at the
// first failure: initialised, selected (selection itself: scanned), not
// updating. Guard messages go to the debugger output only.
#include "core/VideoConsoleCoreImp.h"

namespace VideoConsoleCore {

bool VideoConsoleCoreImp::RequireInitialized() const {
    if (m_initialized) return true;
    DebugOut(kMsgInitFirst);
    return false;
}

bool VideoConsoleCoreImp::RequireScanned() const {
    if (m_scanned) return true;
    DebugOut(kMsgScanFirst);
    return false;
}

bool VideoConsoleCoreImp::RequireSelected() const {
    if (m_selected) return true;
    DebugOut(kMsgSelectFirst);
    return false;
}

bool VideoConsoleCoreImp::RequireNotUpdating(const char* refusal) const {
    if (!IsUpdating()) return true;
    DebugOut(refusal);
    return false;
}

}  // namespace VideoConsoleCore
