// tarsk-pack inspect: prints a deciphered descriptor as the device reads it, with a warning for each
// value the device reads differently from how it is written.
#pragma once

#include "tarsk_package.h"

#include <nlohmann/json.hpp>

#include <optional>
#include <ostream>
#include <string>
#include <vector>

namespace tarsk_tools {

// What the device reads from a descriptor: each record's fields as written (nullopt: the element is
// missing) and as read (a number or a text), and a warning for each value read otherwise than it looks.
struct Field {
    std::string name;
    std::optional<std::string> written;
    nlohmann::ordered_json read;
};
struct Record {
    std::string kind;   // bootloader, kernel, region
    std::string path;   // where it lies in the descriptor ("device/kernel/upgrade")
    bool present;
    std::vector<Field> fields;
};
struct Inspection {
    std::vector<std::string> carries;   // the image kinds the descriptor has a record for
    std::vector<Record> records;
    std::vector<std::string> warnings;
};

// Returns 0 when the descriptor carries at least one image kind, 1 when the device can use nothing
// in it, 2 when the throwaway device could not be set up (why says what failed).
int inspectPackage(const Bytes &plain, Inspection &in, std::string &why);
// header: the first line of the report (which file, which key).
void printInspection(const Inspection &in, const std::string &header, std::ostream &out);
nlohmann::ordered_json inspectionJson(const Inspection &in);

}  // namespace tarsk_tools
