// A chip on the virtual capture board's I2C bus, as the bridge chip's I2C
// master sees it. The bridge model (virtual/device) routes the IIC reports
// of the host to the target at the addressed 7-bit address; the
// microcontroller model (virtual/mcu) is one such target and itself a
// master towards the chips behind it.
#pragma once

#include <cstddef>
#include <cstdint>

namespace VideoConsoleCore::virtualdev {

class I2cTarget {
public:
    virtual ~I2cTarget() = default;

    // A write transaction of `count` bytes. False when the target does not
    // acknowledge (NACK).
    virtual bool Write(const uint8_t* data, size_t count) = 0;

    // A write of `writeCount` bytes (usually a register number; may be 0)
    // followed by a repeated-start read of `readCount` bytes into `out`.
    // False on a NACK; `out` is then left as it was.
    virtual bool Read(const uint8_t* writeData, size_t writeCount, uint8_t* out,
                      size_t readCount) = 0;

    // Lets simulated time pass (milliseconds), for targets whose operations
    // take time (busy flags). The bridge calls it before each transaction
    // with the time since the previous one.
    virtual void Advance(uint32_t milliseconds) { (void)milliseconds; }
};

}  // namespace VideoConsoleCore::virtualdev
