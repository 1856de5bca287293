// Turns one Input, Output or Feature main item into capabilities, the way
// Windows does (see report_descriptor.h for the rules).
#pragma once

#include <cstdint>
#include <vector>

#include "hid/descriptor/parser_state.h"
#include "hid/descriptor/report_descriptor.h"

namespace VideoConsoleCore::hid::detail {

// Main item data bits.
inline constexpr uint32_t kMainConstant = 0x01;
inline constexpr uint32_t kMainVariable = 0x02;
inline constexpr uint32_t kMainRelative = 0x04;
inline constexpr uint32_t kMainNullState = 0x40;

struct MainItemFields {
    uint32_t flags = 0;
    const GlobalState* globals = nullptr;
    const LocalState* locals = nullptr;
    uint32_t bitPosition = 0;  // of the first field, from the report ID byte
    uint16_t linkCollection = 0;
    const LinkCollectionNode* link = nullptr;
};

// True when the item only pads its report: constant, and no usage other
// than 0.
bool IsPadding(uint32_t flags, const LocalState& locals);

// Appends the item's capabilities to `caps` and numbers their data indices
// from `dataIndexCount` on, which it advances. Returns false, changing
// nothing, when the data indices of the report type would pass 65535.
bool AppendMainItemCaps(const MainItemFields& item, std::vector<ControlCaps>& caps,
                        uint16_t& dataIndexCount);

}  // namespace VideoConsoleCore::hid::detail
