#include "drawing.h"

#include "glib_ptr.h"

#include <memory>
#include <sys/resource.h>
#include <utility>

namespace scope {

namespace {

constexpr guint longest = 10; // seconds

/// A graph is what a player says it is.
void bound(gpointer /*unused*/) {
    const rlimit time{longest, longest};
    const rlimit memory{rlim_t{1} << 30U, rlim_t{1} << 30U};
    setrlimit(RLIMIT_CPU, &time);
    setrlimit(RLIMIT_AS, &memory);
}

struct Job {
    ObjectPtr<GSubprocess> dot;
    ObjectPtr<GCancellable> late{g_cancellable_new()};
    std::unique_ptr<Timer> timer;
    Drawn drawn;
};

gboolean giveUp(gpointer job) {
    auto* const late = static_cast<Job*>(job);
    g_subprocess_force_exit(late->dot.get());
    g_cancellable_cancel(late->late.get());
    return G_SOURCE_CONTINUE; // ends with the job
}

void finish(GObject* /*dot*/, GAsyncResult* result, gpointer user) {
    const std::unique_ptr<Job> job(static_cast<Job*>(user));
    GBytes* out = nullptr;
    GBytes* complaints = nullptr;
    GError* failure = nullptr;
    g_subprocess_communicate_finish(job->dot.get(), result, &out, &complaints, &failure);
    const BytesPtr svg(out);
    const BytesPtr said(complaints);
    if (const ErrorPtr error(failure); error)
        return job->drawn("", "the graph is too large to be drawn within " +
                                  std::to_string(longest) + " s; take it as it is (m_graph)");
    if (!g_subprocess_get_successful(job->dot.get()))
        return job->drawn("", "Graphviz cannot draw it: " + textOf(said.get()));
    job->drawn(textOf(svg.get()), "");
}

} // namespace

void draw(const std::string& graph, Drawn drawn) {
    const ObjectPtr<GSubprocessLauncher> launcher(
        g_subprocess_launcher_new(static_cast<GSubprocessFlags>(G_SUBPROCESS_FLAGS_STDIN_PIPE |
                                                                G_SUBPROCESS_FLAGS_STDOUT_PIPE |
                                                                G_SUBPROCESS_FLAGS_STDERR_PIPE)));
    // Then it reads no files that a graph names.
    g_subprocess_launcher_setenv(launcher.get(), "SERVER_NAME", "uva-scope", TRUE);
    g_subprocess_launcher_set_child_setup(launcher.get(), bound, nullptr, nullptr);
    auto job = std::make_unique<Job>();
    job->drawn = std::move(drawn);
    GError* failure = nullptr;
    job->dot.reset(g_subprocess_launcher_spawn(launcher.get(), &failure, "dot", "-Tsvg", nullptr));
    if (const ErrorPtr error(failure); error)
        return job->drawn("", "there is no 'dot' to draw with: install the package graphviz");
    job->timer = std::make_unique<Timer>(longest * 1000, giveUp, job.get());
    const BytesPtr input(g_bytes_new(graph.data(), graph.size()));
    g_subprocess_communicate_async(job->dot.get(), input.get(), job->late.get(), finish, job.get());
    static_cast<void>(job.release()); // finish() has it
}

} // namespace scope
