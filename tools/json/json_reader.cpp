#include "tools/json/json_reader.hpp"

namespace tools {

Graph read_graph(JsonReader &reader, uint32_t mat_type, const Input &in)
{
    Graph graph;
    visit_mat_type(mat_type, [&]<class R>(R *) {
        graph = Graph::make<R>();
        reader.read(in, graph.as<R>());
    });
    return graph;
}

Graph read_graph(JsonReader &reader, uint32_t mat_type, const Document &document)
{
    const Place root;
    return read_graph(reader, mat_type, {document, document.root, root});
}

} // namespace tools
