// The lights that show a firmware update. Boards with models 7, 10, 11, 13
// and 14 have a GPIO LED whose pattern is one byte in the microcontroller's
// register 0xC8; models 6 and 8 have an RGB light that the microcontroller
// programs through its own I2C bus. Other boards show nothing.
#pragma once

#include <cstdint>

namespace VideoConsoleCore {

class VideoConsoleCoreImp;

namespace firmware {

inline constexpr uint8_t kLedDark = 0x83;  // the off half of a blink
inline constexpr uint8_t kLedRegister = 0xC8;

enum LightPhase : int { kPhaseUpdating = 0, kPhaseSucceeded = 1, kPhaseFailed = 2 };

bool HasGpioLed(uint8_t model);
bool HasRgbLight(uint8_t model);

// Writes one pattern (0x80..0x83) to 0xC8; true when the microcontroller
// took it.
bool WriteLedPattern(VideoConsoleCoreImp& core, uint8_t pattern);
// Reads the pattern pair at 0xC8; the pattern is its second byte.
bool ReadLedPattern(VideoConsoleCoreImp& core, uint8_t& pattern);

// One step of the updating blink, for the loops of the updaters: with a
// period, toggles between the updating pattern and dark whenever the period
// has passed since the last toggle; without one, writes the pattern once
// per update. It asks no model: a board without the GPIO LED leaves the
// write unanswered or takes it as a no-op, and the update goes on.
void BlinkStep(VideoConsoleCoreImp& core);

// Programs the RGB light with the colour and mode of `phase`: 500 ms, then
// six writes 10 ms apart, each only after the one before went through.
bool SetRgbPhase(VideoConsoleCoreImp& core, int phase);
// The RGB light's colour (the three bytes in the order the chip takes
// them, for all five LEDs) and its effect code, each latched at once. For
// the class face's light control.
bool SetRgbColour(VideoConsoleCoreImp& core, uint8_t first, uint8_t second, uint8_t third);
bool SetRgbEffect(VideoConsoleCoreImp& core, uint8_t code);

// Stores an 80-byte LED parameter block (16 entries of 5 bytes) in the
// microcontroller and waits for the outcome, which it says.
bool SaveLedParameters(VideoConsoleCoreImp& core, const uint8_t* block);

// The finish lights: a thread that blinks the success (or failure) phase
// while the update-finished flag is set. A thread started earlier is ended
// first.
void StartFinishLights(VideoConsoleCoreImp& core, bool success);
// The updating lights: the same for phase 0, while the update runs.
void StartUpdatingLights(VideoConsoleCoreImp& core);
// Clears the update-finished flag (an update starts): a finish-light thread
// ends at once.
void EndFinishLights(VideoConsoleCoreImp& core);
// Ends every light thread and waits for it. `fromDestructor`: the process
// may be exiting, where a thread may have been ended by the system.
void StopLightThreads(VideoConsoleCoreImp& core, bool fromDestructor = false);

}  // namespace firmware
}  // namespace VideoConsoleCore
