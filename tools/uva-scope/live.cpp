#include "live.h"

#include <algorithm>

namespace scope {

namespace {

constexpr std::size_t mostPages = 16;

Json describe(const Record& record) {
    return {record.time, record.track, record.name, record.detail};
}

Json describe(const Line& line) {
    return {line.time, line.source, line.text};
}

} // namespace

Json Snapshot::take(const Players& players) {
    auto list = Json::array();
    players.forEach([&](const Player& player) {
        auto& seen = m_seen[player.id()];
        auto entry = player.describe();
        auto records = Json::array();
        auto lines = Json::array();
        player.timeline().from(seen.records,
                               [&](const Record& r) { records.push_back(describe(r)); });
        player.lines().from(seen.lines, [&](const Line& l) { lines.push_back(describe(l)); });
        seen = {player.timeline().end(), player.lines().end()};
        entry["timeline"] = std::move(records);
        entry["lines"] = std::move(lines);
        list.push_back(std::move(entry));
    });
    return {{"time", now()}, {"where", players.where()}, {"players", std::move(list)}};
}

bool Live::add(SoupServerMessage* message) {
    if (m_pages.size() >= mostPages)
        return false;
    auto* const headers = soup_server_message_get_response_headers(message);
    soup_message_headers_set_encoding(headers, SOUP_ENCODING_CHUNKED);
    soup_message_headers_set_content_type(headers, "text/event-stream", nullptr);
    soup_message_body_set_accumulate(soup_server_message_get_response_body(message), FALSE);
    soup_server_message_set_status(message, SOUP_STATUS_OK, nullptr);
    auto& page = m_pages.emplace_back(new Page{this, message, {}});
    g_signal_connect(message, "wrote-chunk", G_CALLBACK(onWritten), page.get());
    g_signal_connect(message, "finished", G_CALLBACK(onFinished), page.get());
    send(*page);
    return true;
}

void Live::changed() {
    for (const auto& page : m_pages) {
        if (page->isWriting)
            page->isBehind = true;
        else
            send(*page);
    }
}

void Live::send(Page& page) {
    const auto text = "data: " + dump(page.snapshot.take(m_players)) + "\n\n";
    page.isWriting = true;
    page.isBehind = false;
    soup_message_body_append(soup_server_message_get_response_body(page.message), SOUP_MEMORY_COPY,
                             text.data(), text.size());
    soup_server_message_unpause(page.message);
}

void Live::onWritten(SoupServerMessage* /*message*/, gpointer user) {
    auto& page = *static_cast<Page*>(user);
    page.isWriting = false;
    if (page.isBehind)
        page.live->send(page);
}

void Live::onFinished(SoupServerMessage* /*message*/, gpointer user) {
    auto& pages = static_cast<Page*>(user)->live->m_pages;
    pages.erase(std::find_if(pages.begin(), pages.end(),
                             [user](const auto& page) { return page.get() == user; }));
}

} // namespace scope
