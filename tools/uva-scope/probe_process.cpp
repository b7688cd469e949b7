#include "probe_process.h"

#include <stdexcept>
#include <utility>

namespace scope {

namespace {

constexpr std::size_t mostOpen = 8;

std::string decoded(const std::string& base64) {
    gsize size = 0;
    guchar* const bytes = g_base64_decode(base64.c_str(), &size);
    std::string text(reinterpret_cast<const char*>(bytes), size);
    g_free(bytes);
    return text;
}

} // namespace

ProbeProcess::ProbeProcess(const std::vector<std::string>& command, Report report, Lost lost)
    : m_report(std::move(report)), m_lost(std::move(lost)),
      m_share(std::make_shared<Share>(Share{this})) {
    std::vector<const gchar*> words;
    for (const auto& word : command)
        words.push_back(word.c_str());
    words.push_back(nullptr);
    GError* failure = nullptr;
    m_process.reset(g_subprocess_newv(words.data(),
                                      static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDIN_PIPE |
                                                                    G_SUBPROCESS_FLAGS_STDOUT_PIPE),
                                      &failure));
    if (const ErrorPtr error(failure); error)
        throw std::runtime_error(std::string("cannot start a probe: ") + error->message);
    m_lines.reset(g_data_input_stream_new(g_subprocess_get_stdout_pipe(m_process.get())));
    g_buffered_input_stream_set_buffer_size(G_BUFFERED_INPUT_STREAM(m_lines.get()), 256 << 10);
    readOn();
}

/// It ends at the end of its standard input.
ProbeProcess::~ProbeProcess() {
    m_share->probe = nullptr;
    g_output_stream_close(g_subprocess_get_stdin_pipe(m_process.get()), nullptr, nullptr);
}

void ProbeProcess::readOn() {
    g_data_input_stream_read_line_async(m_lines.get(), G_PRIORITY_DEFAULT, nullptr, onLine,
                                        new std::shared_ptr<Share>(m_share));
}

void ProbeProcess::onLine(GObject* stream, GAsyncResult* result, gpointer share) {
    const std::unique_ptr<std::shared_ptr<Share>> mine(static_cast<std::shared_ptr<Share>*>(share));
    gsize size = 0;
    gchar* const text =
        g_data_input_stream_read_line_finish(G_DATA_INPUT_STREAM(stream), result, &size, nullptr);
    const bool isEnd = text == nullptr;
    const std::string line = isEnd ? std::string() : std::string(text, size);
    g_free(text);
    auto* const probe = (*mine)->probe;
    if (probe == nullptr)
        return;
    if (isEnd) {
        (*mine)->probe = nullptr;
        return probe->m_lost(); // which may delete it
    }
    probe->take(line);
    if ((*mine)->probe != nullptr)
        probe->readOn();
}

void ProbeProcess::take(const std::string& line) {
    const auto message = Json::parse(line, nullptr, false);
    if (textIn(message, "kind") == "answer")
        takeAnswer(message);
    else
        m_report(message);
}

void ProbeProcess::takeAnswer(const Json& message) {
    auto open = m_open.extract(static_cast<int>(numberIn(message, "id").value_or(0)));
    if (!open.empty())
        open.mapped()(member(message, "ok") == true, textIn(message, "text"),
                      decoded(textIn(message, "bytes")));
}

void ProbeProcess::order(Json order, Answered answered) {
    if (m_open.size() >= mostOpen)
        return answered(false, "the player has not answered what it was asked before", "");
    order["id"] = ++m_orders;
    const auto line = dump(order) + "\n";
    if (!g_output_stream_write_all(g_subprocess_get_stdin_pipe(m_process.get()), line.data(),
                                   line.size(), nullptr, nullptr, nullptr))
        return answered(false, "the probe has ended", "");
    m_open.emplace(m_orders, std::move(answered));
}

} // namespace scope
