#ifndef UVA_HOST_PIPELINE_GRAPH_H
#define UVA_HOST_PIPELINE_GRAPH_H

#include <filesystem>
#include <string>

namespace uvahost {

/// Makes GStreamer write its pipeline graphs and fetches the newest. To be made before the backend
/// library is loaded and before there are threads: it sets an environment variable, unless the user
/// has set it already.
class PipelineGraph {
public:
    PipelineGraph();
    ~PipelineGraph(); ///< removes the graphs, if the folder is ours

    PipelineGraph(const PipelineGraph&) = delete;
    PipelineGraph& operator=(const PipelineGraph&) = delete;

    /// Writes the newest graph to `path`, drawn when that ends in ".svg". Empty on success; else
    /// what went wrong and what to do.
    std::string writeTo(const std::string& path) const;

private:
    const std::filesystem::file_time_type m_since;
    std::filesystem::path m_folder; ///< empty: it could not be made
    bool m_ours = false;
};

} // namespace uvahost

#endif
