#include "pp_data.h"

#include <gtest/gtest.h>

#include <fstream>

namespace hidtest {

namespace {

std::string Trim(const std::string& s) {
    const size_t b = s.find_first_not_of(" \t\r");
    if (b == std::string::npos) return "";
    const size_t e = s.find_last_not_of(" \t\r");
    return s.substr(b, e - b + 1);
}

// "0x00FF", "-127", "16"; anything else (quoted strings) is no number.
bool ParseNumber(const std::string& text, int64_t& value) {
    if (text.empty()) return false;
    try {
        size_t used = 0;
        if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
            value = static_cast<int64_t>(std::stoull(text.substr(2), &used, 16));
            return used == text.size() - 2;
        }
        value = std::stoll(text, &used, 10);
        return used == text.size();
    } catch (const std::exception&) {
        return false;
    }
}

}  // namespace

int64_t PpRecord::Get(const std::string& field) const {
    const auto it = m_fields.find(field);
    if (it == m_fields.end()) {
        ADD_FAILURE() << "pp_data has no field " << name << "->" << field;
        return -1;
    }
    return it->second;
}

const PpRecord& PpData::Record(const std::string& name) const {
    static const PpRecord kEmpty;
    const auto it = records.find(name);
    if (it == records.end()) {
        ADD_FAILURE() << "pp_data has no record " << name;
        return kEmpty;
    }
    return it->second;
}

bool ReadPpData(const std::string& path, PpData& data, std::string& error) {
    std::ifstream in(path);
    if (!in) {
        error = "cannot open " + path;
        return false;
    }
    const std::string prefix = "pp_data->";
    std::string line;
    size_t fields = 0;
    while (std::getline(in, line)) {
        if (line.rfind("dev->path", 0) == 0) {
            const size_t open = line.find('"');
            const size_t close = line.rfind('"');
            if (open != std::string::npos && close > open) {
                data.devicePath = line.substr(open + 1, close - open - 1);
            }
            continue;
        }
        if (line.rfind(prefix, 0) != 0) continue;
        const size_t eq = line.find('=');
        if (eq == std::string::npos) continue;
        const std::string key = Trim(line.substr(prefix.size(), eq - prefix.size()));
        int64_t value = 0;
        if (!ParseNumber(Trim(line.substr(eq + 1)), value)) continue;
        // "cap[5]->Range.UsageMin" -> record "cap[5]", field "Range.UsageMin";
        // "cap[0]->pp_cap->UnknownTokens[0].Token" keeps its tail as field.
        std::string record;
        std::string field = key;
        const size_t arrow = key.find("->");
        if (arrow != std::string::npos) {
            record = key.substr(0, arrow);
            field = key.substr(arrow + 2);
        }
        PpRecord& r = data.records[record];
        r.name = record;
        r.Set(field, value);
        ++fields;
    }
    if (fields == 0) {
        error = path + " holds no pp_data field";
        return false;
    }
    return true;
}

}  // namespace hidtest
