#include "hid/descriptor/item_reader.h"

namespace VideoConsoleCore::hid::detail {

namespace {
constexpr uint8_t kLongItemPrefix = 0xFE;
}

int32_t Item::SignedData() const {
    switch (size) {
    case 1:
        return static_cast<int8_t>(data & 0xFFu);
    case 2:
        return static_cast<int16_t>(data & 0xFFFFu);
    case 4:
        return static_cast<int32_t>(data);
    default:
        return 0;
    }
}

std::string AtOffset(const std::string& what, size_t offset) {
    return what + " at offset " + std::to_string(offset);
}

ItemReader::Result ItemReader::Next(Item& item, std::string& error) {
    while (m_pos < m_bytes.size()) {
        const size_t offset = m_pos;
        const size_t remaining = m_bytes.size() - offset;
        const uint8_t prefix = m_bytes[offset];

        if (prefix == kLongItemPrefix) {
            if (remaining < 3 || remaining - 3 < m_bytes[offset + 1]) {
                error = AtOffset("truncated long item", offset);
                return Result::Error;
            }
            m_pos = offset + 3 + m_bytes[offset + 1];
            continue;
        }

        const uint8_t sizeCode = prefix & 0x03u;
        const uint8_t size = sizeCode == 3 ? 4 : sizeCode;
        if (remaining - 1 < size) {
            error = AtOffset("truncated item", offset);
            return Result::Error;
        }
        item.offset = offset;
        item.type = static_cast<ItemType>((prefix >> 2) & 0x03u);
        item.tag = static_cast<uint8_t>(prefix >> 4);
        item.size = size;
        item.data = 0;
        for (uint8_t i = 0; i < size; ++i) {
            item.data |= static_cast<uint32_t>(m_bytes[offset + 1 + i]) << (8 * i);
        }
        m_pos = offset + 1 + size;
        return Result::Item;
    }
    return Result::End;
}

}  // namespace VideoConsoleCore::hid::detail
