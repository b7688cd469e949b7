#include "pipeline_graph.h"

#include "common/output_file.h"

#include <glib.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <initializer_list>
#include <utility>

namespace uvahost {

namespace {

namespace fs = std::filesystem;

constexpr const char* folderVariable = "GST_DEBUG_DUMP_DOT_DIR";

bool endsWith(const std::string& text, const std::string& ending) {
    return text.size() >= ending.size() &&
           text.compare(text.size() - ending.size(), ending.size(), ending) == 0;
}

/// The graphs that show a whole player; the backend writes others too.
bool isPlayerGraph(const std::string& name) {
    const auto endings = {"nox-play.dot", "nox-pause.dot", "nox-vnfy.dot", "nox-anfy.dot",
                          "nox-stop.dot"};
    return std::any_of(endings.begin(), endings.end(),
                       [&](const char* ending) { return endsWith(name, ending); });
}

/// The newest; of those written within one tick of the file system's clock the one that GStreamer
/// numbered last.
fs::path newestGraph(const fs::path& folder, fs::file_time_type since) {
    std::pair<fs::file_time_type, fs::path> newest{since, {}};
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(folder, error)) {
        const auto time = entry.last_write_time(error);
        if (!error && isPlayerGraph(entry.path().filename().string()))
            newest = std::max(newest, {time, entry.path()});
    }
    return newest.second;
}

std::string readFile(const fs::path& path) {
    std::ifstream stream(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(stream), {}};
}

/// Runs Graphviz, which Ctrl-C ends; empty on success, else what to do. The drawing is as wide as a
/// window (inches), to be zoomed into: at its own size, a window shows one empty corner of it.
std::string draw(const fs::path& graph, const fs::path& drawing) {
    const std::string output = "-o" + drawing.string();
    const char* const words[] = {"dot",          "-Gsize=24",   "-Tsvg",
                                 output.c_str(), graph.c_str(), nullptr};
    const auto unblockSignals = [](gpointer) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
    };
    int status = 0;
    GError* error = nullptr;
    std::string text;
    if (!g_spawn_sync(nullptr, const_cast<char**>(words), nullptr, G_SPAWN_SEARCH_PATH,
                      unblockSignals, nullptr, nullptr, nullptr, &status, &error))
        text = std::string("cannot run 'dot': ") + error->message +
               "; install Graphviz, or ask for a file that ends in .dot";
    else if (status != 0)
        text = "'dot' failed to draw the graph; ask for a file that ends in .dot to see it";
    g_clear_error(&error);
    return text;
}

} // namespace

PipelineGraph::PipelineGraph()
    : m_since(fs::file_time_type::clock::now() - std::chrono::seconds(1)) {
    const char* const chosen = std::getenv(folderVariable);
    m_folder = chosen ? chosen : "";
    if (!m_folder.empty())
        return;
    std::error_code error;
    std::string pattern = (fs::temp_directory_path(error) / "uva-host-XXXXXX").string();
    if (error || mkdtemp(pattern.data()) == nullptr)
        return;
    m_folder = pattern;
    m_ours = true;
    setenv(folderVariable, pattern.c_str(), 1);
}

PipelineGraph::~PipelineGraph() {
    std::error_code ignored; // what cannot be removed from a temporary folder stays there
    if (m_ours)
        fs::remove_all(m_folder, ignored);
}

std::string PipelineGraph::writeTo(const std::string& path) const {
    if (m_folder.empty())
        return "no folder for pipeline graphs: make sure that TMPDIR can be written";
    const auto graph = newestGraph(m_folder, m_since);
    if (graph.empty())
        return "no pipeline graph in '" + m_folder.string() +
               "': nothing was played, or this GStreamer is built without debugging";
    if (!endsWith(path, ".svg"))
        return tools::writeFile(path, readFile(graph));

    // Beside the graph first: "dot" names no reason when it cannot write its output.
    auto drawing = graph;
    drawing.replace_extension(".svg");
    if (auto error = draw(graph, drawing); !error.empty())
        return error;
    return tools::writeFile(path, readFile(drawing));
}

} // namespace uvahost
