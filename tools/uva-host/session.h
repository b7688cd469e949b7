#ifndef UVA_HOST_SESSION_H
#define UVA_HOST_SESSION_H

#include "options.h"
#include "own_output.h"
#include "pipeline_graph.h"
#include "playback.h"
#include "timeline.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace uvahost {

/// One run of the program.
class Session {
public:
    explicit Session(Options options) : m_options(std::move(options)) {}

    struct Outcome {
        int exitCode;
        bool abandoned; ///< a backend hangs: only the process's end stops its threads
    };
    Outcome run();

private:
    bool asksOnly() const { return m_options.canPlay || m_options.listTypes; }
    void findMedia();
    void compileScript();
    void partOutput();
    void checkOutputs();
    void useLibrary();
    void answerQuestions(const host::BackendLibrary& library);
    void playMedia(std::shared_ptr<const host::BackendLibrary> library);
    bool playAll(Stage& stage);
    bool playSource(Stage& stage);
    bool isWithoutSamples();
    bool take(Playback::Result result, const std::string& name);
    void writeOutputs();
    void failIf(const std::string& error);
    void fail(const std::string& text);

    OwnOutput m_output;
    const Options m_options;
    std::vector<std::string> m_uris;
    std::optional<CompiledScript> m_script; ///< nothing: none was named
    std::optional<PipelineGraph> m_graph;   ///< nothing: not asked for
    host::Picture m_snapshot;
    int m_exitCode = 0;
    bool m_abandoned = false;
};

} // namespace uvahost

#endif
