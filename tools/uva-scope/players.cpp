#include "players.h"

#include "common/box_registry.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

namespace scope {

namespace {

constexpr guint searchEvery = 1000; // milliseconds
constexpr std::size_t mostPlaces = 16;

bool isInBox() {
    return std::getenv("TVBOX") != nullptr;
}

std::string joined(const std::vector<std::string>& words) {
    std::string text;
    for (const auto& word : words)
        text += (text.empty() ? "" : ", ") + word;
    return text;
}

} // namespace

double now() {
    return static_cast<double>(g_get_monotonic_time()) / G_USEC_PER_SEC;
}

Players::Place::Place(std::string placeId, std::string placeBox, std::string placeSocket)
    : box(std::move(placeBox)), socket(std::move(placeSocket)), player(std::move(placeId), box) {}

Players::Players(const Options& options, std::function<void()> changed)
    : m_options(options), m_changed(std::move(changed)) {
    search();
    m_timer.emplace(
        searchEvery,
        [](gpointer self) -> gboolean {
            static_cast<Players*>(self)->search();
            return G_SOURCE_CONTINUE;
        },
        this);
}

const Player* Players::find(const std::string& id) const {
    for (const auto& place : m_places)
        if (place->player.id() == id)
            return &place->player;
    return nullptr;
}

void Players::order(const std::string& id, Json order, ProbeProcess::Answered answered) {
    for (const auto& place : m_places)
        if (place->player.id() == id && place->probe != nullptr)
            return place->probe->order(std::move(order), std::move(answered));
    answered(false, "the player has ended", "");
}

std::string Players::where() const {
    const auto shell = "/tmp/" + joined(m_options.sockets) + " of ";
    if (!m_options.boxes.empty())
        return shell + "box " + joined(m_options.boxes);
    return shell + (isInBox() ? "this box" : "this system and of each box (tvbox)");
}

void Players::search() {
    std::vector<std::string> boxes = m_options.boxes;
    if (boxes.empty()) {
        boxes.emplace_back();
        for (const auto& box : isInBox() ? std::vector<tvbox::BoxInfo>() : tvbox::listBoxes())
            boxes.push_back(box.name);
    }
    for (const auto& box : boxes)
        for (const auto& socket : m_options.sockets)
            look(box, socket);
    forgetOldest();
    const double patience = 2 + std::chrono::duration<double>(m_options.period).count();
    for (const auto& place : m_places)
        place->player.checkHeard(now(), patience);
    m_changed();
}

void Players::look(const std::string& box, const std::string& socket) {
    const auto id = box + ":" + socket;
    const auto found = std::find_if(m_places.begin(), m_places.end(),
                                    [&](const auto& place) { return place->player.id() == id; });
    auto& place = found != m_places.end()
                      ? **found
                      : *m_places.emplace_back(std::make_unique<Place>(id, box, socket));
    if (place.probe != nullptr)
        return;
    if (box.empty() || tvbox::findBox(box))
        begin(place);
    else
        place.player.lost("no box " + box + " runs; tvbox --list names those that do", now());
}

void Players::begin(Place& place) {
    std::vector<std::string> command = {
        "/proc/self/exe", "--probe",
        "--socket",       place.socket,
        "--rate",         std::to_string(1000.0 / static_cast<double>(m_options.period.count()))};
    if (!place.box.empty())
        command.insert(command.end(), {"--box", place.box});
    for (const auto& file : m_options.follow)
        command.insert(command.end(), {"--follow", file});
    const auto report = [this, &place](const Json& message) {
        place.player.take(message, now());
        m_changed();
    };
    const auto lost = [this, &place] {
        place.player.lost("its box has ended, or its probe", now());
        place.probe.reset();
        m_changed();
    };
    place.probe = std::make_unique<ProbeProcess>(command, report, lost);
}

/// Boxes that have ended are kept for a while: somebody may want to know why.
void Players::forgetOldest() {
    while (m_places.size() > mostPlaces) {
        const auto gone = std::find_if(m_places.begin(), m_places.end(), [](const auto& place) {
            return !place->box.empty() && place->probe == nullptr;
        });
        if (gone == m_places.end())
            return;
        m_places.erase(gone);
    }
}

} // namespace scope
