// The wire description as the printers of this program take it: one row for each element,
// whichever table of the project describes it.
#pragma once

#include "tools/json/names.hpp"
#include "wire/elements.hpp"

#include <string>
#include <vector>

namespace describe {

using tools::Names;
using zel::wire::Format;
using zel::wire::Record;

// A value: of an element, or of a part of an element's value.
struct Field {
    std::string record;  // that it belongs to
    std::string name;    // of the C member
    uint32_t id = 0;     // element; 0: none of its own
    uint32_t offset = 0; // in the record, when the record travels whole
    uint32_t width = 0;  // bytes, of one item
    uint32_t count = 1;  // items
    Format format = Format::number;
    Names names{};
    std::string layout{};  // of the value, when that is a record
    bool is_array = false; // the value is a TLV array of the layout's elements
    bool is_count = false; // of the records that follow
    bool is_signed = false;
};

// A record whose members have fixed places, or which travels as elements of its own.
struct Layout {
    std::string name;
    uint32_t size;
    std::vector<Field> fields;
    std::string rest{}; // layout of the records behind it, as many as there is room for
};

struct Element {
    enum class Kind { start, end, value } kind;
    uint32_t id;
    std::string record;
    Field field{}; // of a value
};

// A kind of request or answer that has no header of a message.
struct Opcode {
    uint32_t value;
    std::string name;
};

// Records of messages, each once, in the order of their first appearance.
std::vector<const Record *> message_records();

std::vector<Layout> layouts();    // records that travel whole
std::vector<Layout> statistics(); // records of statistics, innermost first
std::vector<Element> elements();  // by id
std::vector<Opcode> opcodes();

// The value of an enumeration constant for each format: "number", "hexadecimal", ...
const char *name_of(Format format);

// "kob_header" becomes "KobHeader".
std::string class_name(std::string_view record);

// The bytes of the message in a golden file of the tests.
std::string read_golden(const std::string &path);

// What the printers print.
std::string print_wire_format(const std::vector<std::string> &golden_files);
std::string print_dissector(const std::string &program); // the text of dissector.lua
std::string print_python();

} // namespace describe
