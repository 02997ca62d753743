// From JSON to records, by the wire description: one function per operation, none per
// record.
#pragma once

#include "tools/json/document.hpp"
#include "tools/records/graph.hpp"
#include "wire/description.hpp"

#include <map>
#include <string_view>
#include <utility>
#include <vector>

namespace tools {

// Reads the documents of one message, in which an id means one match and one action.
// The documents and the records must outlive the reader.
class JsonReader {
public:
    // A missing application number becomes app_type.  With a list for faults, a fault in a
    // member or an item is put there, and reading goes on behind it.
    explicit JsonReader(uint32_t app_type, std::vector<std::string> *faults = nullptr)
        : app_type_(app_type), faults_(faults)
    {}

    // Fills a zero-filled record.  Throws BadInput and then leaves the record half
    // filled, but so that it can be freed.
    void read(const Input &in, const zel::wire::Record &record, void *object);

private:
    struct Definition {
        const void *object;
        const Document *document;
        uint32_t offset;
        bool is_broken; // has a fault, and so is not compared
    };

    template <class Read> void guard(Read read);
    std::size_t num_faults() const { return faults_ != nullptr ? faults_->size() : 0; }
    bool read_reference(const Input &in, const zel::wire::Record &record, void *object);
    void define(const Input &in, const zel::wire::Record &record, const void *object, bool is_broken);
    void read_members(const Input &in, const zel::wire::Record &record, void *object);
    void read_field(const Input &in, Members &members, const zel::wire::Member &field, void *object);
    void read_content(const Input &in, const zel::wire::Member &member, void *object);
    void read_items(const Input &in, const zel::wire::Member &sequence, void *object);
    void read_choice(const Input &in, Members &members, const zel::wire::Member &choice, void *object);

    uint32_t app_type_;
    std::vector<std::string> *faults_;
    Arena arena_{};                                                   // for items that were split
    std::map<std::pair<uint32_t, uint16_t>, Definition> definitions_; // by MAT type and id
};

// Reads the root of a graph and all that it owns.
Graph read_graph(JsonReader &reader, const zel::wire::Record &record, const Input &in);
Graph read_graph(JsonReader &reader, const zel::wire::Record &record, const Document &document);

// Calls read with the member of a name.  False when the object has none.
template <class Read> bool with_member(const Input &in, Members &members, std::string_view name, Read read)
{
    const Node *const node = members.find(name);
    if (node == nullptr)
        return false;
    const JsonPath path = in.path.in(name);
    read(Input{in.document, *node, path});
    return true;
}
template <class Read> bool with_member(const Input &in, std::string_view name, Read read)
{
    Members members(in.node);
    return with_member(in, members, name, read);
}

// Refuses a member, and an object that has members, of other names.
void refuse_unknown_member(const Input &in, const Node &member, const std::vector<std::string_view> &names);
void refuse_unknown_members(const Input &in, const std::vector<std::string_view> &names);

} // namespace tools
