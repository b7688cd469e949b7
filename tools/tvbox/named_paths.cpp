#include "named_paths.h"

#include <cstdlib>
#include <filesystem>
#include <set>
#include <string_view>

namespace tvbox {

namespace {

namespace fs = std::filesystem;

constexpr std::string_view uriScheme = "file://";
constexpr std::string_view wordEnds = " \t\n\"'`;|&<>(){}[],:=$*?\\!";
constexpr std::size_t longestPath = 4096;

std::string percentDecoded(const std::string& text) {
    std::string result;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto digits = text.substr(i + 1, 2);
        char* end = nullptr;
        const auto value = static_cast<char>(std::strtol(digits.c_str(), &end, 16));
        if (text[i] == '%' && digits.size() == 2 && *end == 0 && value != 0) {
            result += value;
            i += 2;
        } else {
            result += text[i];
        }
    }
    return result;
}

Words split(const std::string& text, std::string_view separators) {
    Words parts;
    std::size_t start = 0;
    while (start <= text.size()) {
        const auto end = std::min(text.find_first_of(separators, start), text.size());
        if (end > start)
            parts.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

class Collector {
public:
    explicit Collector(const std::string& cwd) : m_cwd(cwd) {}

    void takeArgument(const std::string& text) {
        takeWhole(text);
        for (auto at = text.find('='); at != std::string::npos; at = text.find('=', at + 1))
            takeWhole(text.substr(at + 1));
        if (text.size() > 2 && text[0] == '-' && text[1] != '-')
            takeWhole(text.substr(2)); // -oFILE
        for (const auto* quote : {"'", "\""})
            takeParts(text, quote, true);
        takeParts(text, wordEnds, true);
    }

    void takeVariable(const std::string& text) {
        const auto value = text.substr(std::min(text.find('='), text.size() - 1) + 1);
        if (value.find('/') == std::string::npos)
            return;
        takePath(value, false);
        takeParts(value, wordEnds, false);
    }

    Words result() && { return {m_paths.begin(), m_paths.end()}; }

private:
    void takeParts(const std::string& text, std::string_view separators, bool relative) {
        for (const auto& part : split(text, separators)) {
            takePath(part, relative);
            if (part.find('%') != std::string::npos)
                takePath(percentDecoded(part), relative);
        }
    }

    void takeWhole(const std::string& text) {
        if (text.compare(0, uriScheme.size(), uriScheme) == 0)
            return takeWhole(percentDecoded(text.substr(uriScheme.size())));
        takePath(text, true);
        // Through a link elsewhere the path may still end in a folder that the box hides.
        std::error_code error;
        const auto real =
            text.size() <= longestPath ? fs::weakly_canonical(absolute(text), error) : fs::path();
        if (!error)
            takePath(real, false);
    }

    void takePath(const std::string& text, bool relative) {
        if (text.empty() || text.size() > longestPath || text.find('\0') != std::string::npos)
            return;
        if (relative || text[0] == '/')
            m_paths.insert(absolute(text).lexically_normal());
    }

    fs::path absolute(const std::string& text) const {
        // Several slashes at the start, as in a URI without its scheme, are one.
        const auto first = text.find_first_not_of('/');
        if (first != std::string::npos && first > 1)
            return "/" + text.substr(first);
        return fs::path(m_cwd) / text;
    }

    const std::string m_cwd;
    std::set<std::string> m_paths;
};

} // namespace

Words namedPaths(const Words& arguments, const Words& environment, const std::string& cwd) {
    Collector collector(cwd);
    collector.takeArgument(cwd);
    for (const auto& argument : arguments)
        collector.takeArgument(argument);
    for (const auto& variable : environment)
        collector.takeVariable(variable);
    return std::move(collector).result();
}

} // namespace tvbox
