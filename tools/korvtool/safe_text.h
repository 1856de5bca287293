// Texts from a device or a file, made safe to print. A device's product
// string, serial number and the version text in its flash, and the texts in
// an image or the history file, are whatever their maker put there: a
// terminal would obey the escape sequences among them, and bytes that are
// not UTF-8 make a JSON document invalid. korvtool prints such texts only
// through these functions.
#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace korvtool {

// `text` with every control character escaped: C0 (0x00 to 0x1F) and DEL as
// \xNN, C1 (U+0080 to U+009F, which a terminal may take for ESC sequences)
// as \u0080 to \u009f, and every byte that is not part of valid UTF-8 as
// \xNN. Other characters, and backslashes, stay as they are.
std::string Printable(std::string_view text);

// The same for a whole output of lines: its newlines stay.
std::string PrintableLines(std::string_view text);

// `doc` as JSON text (`indent` as for dump()) that a terminal shows as it
// is: bytes that are not UTF-8 become U+FFFD, and DEL and the C1 characters
// are written as \u escapes like the C0 ones. Never throws for the text.
std::string JsonText(const nlohmann::ordered_json& doc, int indent = -1);

}  // namespace korvtool
