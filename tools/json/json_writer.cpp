#include "tools/json/json_writer.hpp"

namespace tools {

Json write_graph(const Graph &graph)
{
    Json json;
    JsonWriter writer;
    visit_mat_type(graph.mat_type(), [&]<class R>(R *) { json = writer.write(graph.as<R>()); });
    return json;
}

} // namespace tools
