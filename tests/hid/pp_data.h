// Reader for the golden ".pp_data" files: text dumps of the preparsed data
// Windows built for one top-level collection, one "pp_data->PATH = VALUE"
// line per field, e.g.
//
//   pp_data->caps_info[0]->ReportByteLength   = 16
//   pp_data->cap[5]->Range.UsageMin           = 0x0001
//   pp_data->LinkCollectionArray[1]->Parent   = 0
#pragma once

#include <cstdint>
#include <map>
#include <string>

namespace hidtest {

// The numeric fields of one record ("cap[5]", "caps_info[0]", ... or "" for
// the fields of pp_data itself), by name ("Range.UsageMin").
class PpRecord {
public:
    // The field's value; a missing field fails the calling test through
    // `missing`, which names it.
    int64_t Get(const std::string& field) const;
    bool Has(const std::string& field) const { return m_fields.count(field) != 0; }
    void Set(const std::string& field, int64_t value) { m_fields[field] = value; }

    std::string name;

private:
    std::map<std::string, int64_t> m_fields;
};

struct PpData {
    std::map<std::string, PpRecord> records;
    // The device path Windows gave the collection ("dev->path" line),
    // without quotes; "" when absent.
    std::string devicePath;

    const PpRecord& Record(const std::string& name) const;
    const PpRecord& Cap(int index) const { return Record("cap[" + std::to_string(index) + "]"); }
    const PpRecord& CapsInfo(int type) const {
        return Record("caps_info[" + std::to_string(type) + "]");
    }
    const PpRecord& Link(int index) const {
        return Record("LinkCollectionArray[" + std::to_string(index) + "]");
    }
};

// Reads a dump; false with `error` set when the file cannot be read or holds
// no pp_data line.
bool ReadPpData(const std::string& path, PpData& data, std::string& error);

}  // namespace hidtest
