#include "set.h"

#include "support/sink_watch.h"

#include <cstdlib>
#include <fstream>
#include <mqueue.h>

namespace chaos {

namespace {

const std::string clipPath = TEST_MEDIA_DIR "/h264-aac.mp4";
constexpr const char* signalLog = "/tmp/mainsys.signals";

} // namespace

const std::shared_ptr<const host::BackendLibrary>& library() {
    static const std::shared_ptr<const host::BackendLibrary> loaded = [] {
        gst_init(nullptr, nullptr);
        support::SinkWatch::instance();
        auto library = host::BackendLibrary::load("");
        require(library.library != nullptr, library.error);
        return library.library;
    }();
    return loaded;
}

Player::Habits url(milliseconds latest) {
    Player::Habits habits;
    habits.url = "file://" + clipPath;
    habits.latest = latest;
    return habits;
}

Player::Habits fed(milliseconds latest) {
    Player::Habits habits;
    habits.fed = &Clip::load(clipPath);
    habits.latest = latest;
    return habits;
}

MainSystem::MainSystem()
    : m_commands(popen((std::string(ZANT_MAINSYS " > ") + signalLog).c_str(), "w"), pclose) {
    eventually(milliseconds(5000), "the main system's start", [] {
        const mqd_t queue = mq_open("/BplayerAppIfUlDestFunc", O_WRONLY);
        return queue >= 0 && mq_close(queue) == 0;
    });
}

MainSystem::~MainSystem() {
    say("quit");
}

void MainSystem::say(const std::string& command) {
    std::fprintf(m_commands.get(), "%s\n", command.c_str());
    std::fflush(m_commands.get());
    ++m_said;
}

void MainSystem::untilObeyed() const {
    eventually(milliseconds(0), "the main system's obedience",
               [this] { return count("obey") == m_said; });
}

int MainSystem::count(const std::string& signal) {
    std::ifstream log(signalLog);
    int found = 0;
    for (std::string line; std::getline(log, line);)
        found += line.find(" " + signal + " ") != std::string::npos ? 1 : 0;
    return found;
}

void playStandalone() {
    setenv("NOX_GST_STANDALONE", "1", 1);
}

int picturesShown(double from, double to) {
    const auto shown = support::SinkWatch::instance().video().buffers;
    return static_cast<int>(std::count_if(shown.begin(), shown.end(), [=](const auto& picture) {
        return picture.position >= from && picture.position <= to;
    }));
}

void requireNoSamples() {
    eventually(milliseconds(0), "the end of the last sample",
               [] { return CountedSample::alive() == 0; });
}

} // namespace chaos
