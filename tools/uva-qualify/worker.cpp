#include "worker.h"

#include "clip_player.h"
#include "groups/groups.h"
#include "main_system.h"
#include "uva/uva_drm_backend.h"

#include <nlohmann/json.hpp>

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace qualify {

namespace {

/// The one in charge reads on until the process ends.
void tell(int descriptor, const nlohmann::json& json) {
    const auto line = json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n";
    for (std::size_t at = 0; at < line.size();) {
        const auto written = write(descriptor, line.data() + at, line.size() - at);
        if (written <= 0)
            std::_Exit(1);
        at += static_cast<std::size_t>(written);
    }
}

int giveUp(const std::string& why) {
    std::fprintf(stderr, "uva-qualify: %s\n", why.c_str());
    return 2;
}

/// Whether the sinks of this set are the simulated ones.
bool isTapped(Stage& stage) {
    Player player(stage);
    player.open(stage.clips["main.mp4"]);
    player.pause();
    return player.waitForPicture(0, 0, Milliseconds(3000));
}

std::shared_ptr<Observation> observe(Stage& stage, Observe how) {
    if (how == Observe::Capture)
        return observeByCapture();
    stage.observation = observeSinks();
    if (how == Observe::Auto && !isTapped(stage)) {
        stage.observation.reset();
        return observeByCapture();
    }
    return stage.observation;
}

} // namespace

int work(const Options& options) {
    const bool commandsMainSystem = options.worker == "mainsystem" && !options.mainSystem.empty();
    Stage stage;
    stage.standalone = options.standalone || (!options.mainSystem.empty() && !commandsMainSystem);
    if (stage.standalone)
        setenv("NOX_GST_STANDALONE", "1", 1);
    if (const auto error = stage.clips.load(options.media); !error.empty())
        return giveUp(error);
    if (commandsMainSystem) {
        stage.mainSystem = std::make_shared<MainSystem>(options.mainSystem);
        if (!stage.mainSystem->isThere())
            return giveUp("no main system: " + options.mainSystem +
                          " does not answer; name a zant-mainsys with --main-system");
    }
    auto loaded = host::BackendLibrary::load(options.backend);
    if (loaded.library == nullptr)
        return giveUp(loaded.error);
    stage.library = std::move(loaded.library);
    stage.loop = std::make_shared<host::EventLoop>();
    stage.keys = std::make_shared<host::ClearKey>(host::ClearKey::Interface::PerRange);
    UVA_OfferDRMBackend(host::clearKeySystem, stage.keys.get());
    stage.profile = options.profile;
    stage.elements = options.elements;
    stage.observation = observe(stage, options.observe);
    tell(options.result, {{"observed", stage.observation->name()}});

    const auto* group = findGroup(options.worker.c_str());
    {
        Findings findings(group->name,
                          [&](const Finding& finding) { tell(options.result, finding); });
        group->run(stage, findings);
    }
    UVA_OfferDRMBackend(host::clearKeySystem, nullptr);
    tell(options.result, {{"done", true}});
    return 0;
}

} // namespace qualify
