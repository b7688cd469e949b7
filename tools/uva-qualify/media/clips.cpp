#include "media/clips.h"

#include <nlohmann/json.hpp>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace qualify {

std::string Clips::load(const std::string& folder) {
    const auto list = std::filesystem::path(folder) / "clips.json";
    std::ifstream stream(list);
    if (!stream)
        return "no test clips: cannot read " + list.string() +
               "; name the folder that has them with --media";
    const auto json = nlohmann::json::parse(stream, nullptr, false);
    try {
        for (const auto& entry : json) {
            Clip clip;
            clip.name = entry.at("name").get<std::string>();
            clip.path = std::filesystem::absolute(list.parent_path() / clip.name).string();
            clip.mark = entry.at("mark").get<std::string>().at(0);
            clip.rate = entry.at("rate").get<int>();
            clip.pictures = entry.at("pictures").get<int>();
            clip.width = entry.at("width").get<int>();
            clip.height = entry.at("height").get<int>();
            clip.pixelAspect = entry.at("pixelAspect").get<double>();
            clip.seconds = entry.at("seconds").get<double>();
            clip.sound = entry.at("sound").get<bool>();
            clip.unpromised = entry.at("unpromised").get<std::string>();
            for (const auto& asked : entry.at("types"))
                clip.types.push_back(
                    {asked.at("type").get<std::string>(), asked.at("more").get<bool>()});
            std::error_code error;
            const auto size = std::filesystem::file_size(clip.path, error);
            if (error || size == 0)
                return "the test clip " + clip.path + " is " + (error ? "missing" : "empty") +
                       "; build the clips anew";
            m_clips.push_back(std::move(clip));
        }
    } catch (const std::exception& error) {
        return list.string() + " is no list of test clips (" + error.what() + "); build them anew";
    }
    if (m_clips.empty())
        return list.string() + " lists no test clips; build them anew";
    return {};
}

const Clip& Clips::operator[](const std::string& name) const {
    static const Clip none;
    for (const auto& clip : m_clips)
        if (clip.name == name)
            return clip;
    return none;
}

std::string defaultMediaFolder() {
    const char* const named = std::getenv("UVA_QUALIFY_MEDIA");
    if (named && *named)
        return named;
    std::error_code error;
    const auto here = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
    const auto built = here / "clips";
    const auto installed = here.parent_path() / "share/uva-qualify/clips";
    return (std::filesystem::exists(built, error) ? built : installed).string();
}

} // namespace qualify
