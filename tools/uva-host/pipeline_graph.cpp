#include "pipeline_graph.h"

#include "common/output_file.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <spawn.h>
#include <sys/wait.h>
#include <utility>

extern char** environ;

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

/// Runs Graphviz; empty on success, else what to do.
std::string draw(const fs::path& graph, const fs::path& drawing) {
    sigset_t none;
    sigemptyset(&none);
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK);

    std::string words[] = {"dot", "-Tsvg", "-o" + drawing.string(), graph.string()};
    char* const argv[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data(),
                          nullptr};
    pid_t pid = 0;
    const int error = posix_spawnp(&pid, "dot", nullptr, &attributes, argv, environ);
    posix_spawnattr_destroy(&attributes);
    if (error != 0)
        return std::string("cannot run 'dot': ") + std::strerror(error) +
               "; install Graphviz, or ask for a file that ends in .dot";

    int status = 0;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR)
            return std::string("lost sight of 'dot': ") + std::strerror(errno);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0)
        return {};
    return "'dot' failed to draw the graph; ask for a file that ends in .dot to see it";
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
