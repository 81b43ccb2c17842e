// docs/wire-format.md against the structures that it describes.
#include "channel/buffer_format.h"
#include "client/vocabulary.h"

#include <gtest/gtest.h>

#include <charconv>
#include <fstream>
#include <map>
#include <string>
#include <tuple>
#include <vector>

namespace zpregmon {
namespace {

using namespace zpregflt;

struct Place {
    std::size_t offset;
    std::size_t size;  ///< 0: of no fixed size
    bool operator==(const Place&) const = default;
};
using Fields = std::map<std::string, Place>;

void PrintTo(const Place& place, std::ostream* out) {
    *out << place.size << " bytes at " << place.offset;
}

#define FIELD(structure, field)                                  \
    {                                                            \
        "`" #field "`", {                                        \
            offsetof(structure, field), sizeof(structure::field) \
        }                                                        \
    }

std::map<std::string, Fields> Structures() {
    return {
        {"BufferHeader", {FIELD(BufferHeader, Type), FIELD(BufferHeader, NextOffset)}},
        {"DumpBlockHeader", {FIELD(DumpBlockHeader, Magic), FIELD(DumpBlockHeader, Length)}},
        {"RecordHeader",
         {FIELD(RecordHeader, Type), FIELD(RecordHeader, NextOffset),
          FIELD(RecordHeader, ProcessId), FIELD(RecordHeader, Reserved),
          FIELD(RecordHeader, ProcessKey), FIELD(RecordHeader, SystemTime),
          FIELD(RecordHeader, KeyOperations), FIELD(RecordHeader, NameOffset)}},
        {"ValueSetRecord",
         {FIELD(ValueSetRecord, ValueNameOffset),
          FIELD(ValueSetRecord, ValueType),
          FIELD(ValueSetRecord, DataSize),
          FIELD(ValueSetRecord, CapturedLength),
          FIELD(ValueSetRecord, PreviousOffset),
          FIELD(ValueSetRecord, PreviousSize),
          FIELD(ValueSetRecord, PreviousCapturedLength),
          {"data", {ValueSetRecord::kDataOffset, 0}}}},
        {"NameRecord", {{"name", {NameRecord::kNameOffset, 0}}}},
        {"InformationRecord",
         {FIELD(InformationRecord, InformationClass),
          FIELD(InformationRecord, DataLength),
          {"data", {sizeof(InformationRecord), 0}}}},
        {"ValueEnumeratedRecord",
         {FIELD(ValueEnumeratedRecord, Index),
          FIELD(ValueEnumeratedRecord, InformationClass),
          FIELD(ValueEnumeratedRecord, DataLength),
          {"data", {ValueEnumeratedRecord::kDataOffset, 0}}}},
        {"ValueQueriedRecord",
         {FIELD(ValueQueriedRecord, ValueNameOffset),
          FIELD(ValueQueriedRecord, InformationClass),
          FIELD(ValueQueriedRecord, DataLength),
          {"data", {ValueQueriedRecord::kDataOffset, 0}}}},
        {"ValuesQueriedRecord",
         {FIELD(ValuesQueriedRecord, EntryCount),
          {"entries", {ValuesQueriedRecord::kEntriesOffset, 0}}}},
        {"ValuesQueriedEntry",
         {FIELD(ValuesQueriedEntry, DataLength), FIELD(ValuesQueriedEntry, DataOffset),
          FIELD(ValuesQueriedEntry, ValueType), FIELD(ValuesQueriedEntry, NameOffset)}},
        {"TwoNamesRecord",
         {FIELD(TwoNamesRecord, SecondNameOffset),
          {"first name", {TwoNamesRecord::kFirstNameOffset, 0}}}},
        {"FileRecord",
         {FIELD(FileRecord, Options), FIELD(FileRecord, FileNameOffset),
          FIELD(FileRecord, FileNameLength), FIELD(FileRecord, FileNameMaximumLength),
          FIELD(FileRecord, Gap), FIELD(FileRecord, FileNameAddress)}},
        {"KeySecuritySetRecord",
         {FIELD(KeySecuritySetRecord, OwnerOffset),
          FIELD(KeySecuritySetRecord, GroupOffset),
          FIELD(KeySecuritySetRecord, DaclOffset),
          FIELD(KeySecuritySetRecord, SaclOffset),
          {"sections", {sizeof(KeySecuritySetRecord), 0}}}},
        {"SecuritySection",
         {FIELD(SecuritySection, OldLength),
          FIELD(SecuritySection, NewLength),
          {"forms", {sizeof(SecuritySection), 0}}}},
    };
}

/// The cells of a row of a table, or none.
std::vector<std::string> Cells(const std::string& line) {
    std::vector<std::string> cells;
    if (!line.starts_with("| ")) {
        return cells;
    }
    for (std::size_t start = 2; start < line.size();) {
        const std::size_t end = std::min(line.find(" |", start), line.size());
        cells.push_back(line.substr(start, end - start));
        start = end + 3;
    }
    return cells;
}

std::size_t NumberOrZero(const std::string& text) {
    std::size_t number = 0;
    std::from_chars(text.data(), text.data() + text.size(), number);
    return text.find_first_not_of("0123456789") == std::string::npos ? number : 0;
}

TEST(WireFormatDocument, SaysWhatTheStructuresAre) {
    std::ifstream file("docs/wire-format.md");
    ASSERT_TRUE(file);
    std::map<std::string, Fields> described;
    std::map<std::size_t, std::string> kinds;
    std::string structure;
    for (std::string line; std::getline(file, line);) {
        const std::vector<std::string> cells = Cells(line);
        if (line.starts_with("### ")) {
            structure = line.substr(4);
        } else if (cells.size() >= 3 &&
                   cells[0].find_first_not_of("0123456789") == std::string::npos) {
            if (cells[1].find('-') != std::string::npos) {
                kinds[NumberOrZero(cells[0])] = cells[1];
                const std::string name = cells[2].substr(1, cells[2].size() - 2);
                EXPECT_TRUE(Structures().contains(name)) << line;
            } else {
                described[structure][cells[2]] = {NumberOrZero(cells[0]), NumberOrZero(cells[1])};
            }
        }
    }
    const auto structures = Structures();
    for (const auto& [name, fields] : structures) {
        EXPECT_EQ(described[name], fields) << name;
    }
    EXPECT_EQ(described.size(), structures.size());
    ASSERT_EQ(kinds.size(), kLastRecordType);
    for (const auto& [type, kind] : kinds) {
        EXPECT_EQ(kind, RecordName(static_cast<RecordType>(type)));
    }
}

}  // namespace
}  // namespace zpregmon
