// Splits a report descriptor into its items.
//
// A short item is one prefix byte followed by 0, 1, 2 or 4 data bytes:
//
//   bit 7..4  tag     bit 3..2  type (0 main, 1 global, 2 local, 3 reserved)
//   bit 1..0  size    (0, 1, 2 bytes; 3 means 4 bytes)
//
// Data is little-endian. The prefix 0xFE starts a long item: a data length
// byte, a tag byte, then that many data bytes. No long item has a defined
// meaning, so the reader skips them (after checking that they fit).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace VideoConsoleCore::hid::detail {

enum class ItemType : uint8_t { Main = 0, Global = 1, Local = 2, Reserved = 3 };

struct Item {
    size_t offset = 0;  // of the prefix byte
    ItemType type = ItemType::Main;
    uint8_t tag = 0;
    uint8_t size = 0;  // data bytes: 0, 1, 2 or 4
    uint32_t data = 0;

    // The data read as a two's complement number of `size` bytes.
    int32_t SignedData() const;
};

class ItemReader {
public:
    explicit ItemReader(std::span<const uint8_t> descriptor) : m_bytes(descriptor) {}

    enum class Result { Item, End, Error };

    // Reads the next short item into `item`. On Error, `error` names the
    // fault and its offset; the reader then stays at the faulty item.
    Result Next(Item& item, std::string& error);

private:
    std::span<const uint8_t> m_bytes;
    size_t m_pos = 0;
};

// "<what> at offset <n>"
std::string AtOffset(const std::string& what, size_t offset);

}  // namespace VideoConsoleCore::hid::detail
