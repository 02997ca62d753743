// From records to JSON that JsonReader reads back to an equal graph.
#pragma once

#include "tools/json/notation.hpp"
#include "tools/records/graph.hpp"
#include "wire/description.hpp"

#include <map>
#include <utility>

namespace tools {

// Writes the graphs of one message.  A match or an action that comes again with the
// same content becomes a {"ref": id}.  The records must outlive the writer.
class JsonWriter {
public:
    Json write(const zel::wire::Record &record, const void *object);

private:
    Json write_content(const zel::wire::Member &member, const void *object);
    Json write_elements(const zel::wire::Member &sequence, const void *object);
    void write_member(Json &json, const zel::wire::Member &member, const void *object);

    std::map<std::pair<uint32_t, uint16_t>, const void *> written_; // by MAT type and id
};

// Null for a graph without root.
Json write_graph(const Graph &graph);

} // namespace tools
