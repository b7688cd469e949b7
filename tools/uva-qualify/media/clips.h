#ifndef UVA_QUALIFY_CLIPS_H
#define UVA_QUALIFY_CLIPS_H

#include <string>
#include <vector>

namespace qualify {

/// A content type under which a page asks for a clip.
struct AskedType {
    std::string type;
    bool more = false; ///< it asks for more than the clip shows, of the same decoders
};

/// A test clip, as clips.json lists it.
struct Clip {
    std::string name;
    std::string path;
    char mark = 'A';
    int rate = 25;             ///< pictures a second
    int pictures = 0;          ///< 0: it has none
    int width = 0, height = 0; ///< pixels
    double pixelAspect = 1;    ///< width of a pixel over its height
    double seconds = 0;        ///< of the whole
    bool sound = false;
    std::vector<AskedType> types; ///< under which a page asks for it; none: it is not asked for
    std::string unpromised;       ///< why a set may refuse all that and play it; empty: it may not

    double frame() const { return 1.0 / rate; } ///< seconds
};

class Clips {
public:
    /// Reads the list in the folder. Empty when all is well, else what is wrong and what to do.
    std::string load(const std::string& folder);

    const std::vector<Clip>& all() const { return m_clips; }
    /// One that is not listed is an empty clip, which plays nowhere.
    const Clip& operator[](const std::string& name) const;

private:
    std::vector<Clip> m_clips;
};

/// Where the build has put them: UVA_QUALIFY_MEDIA, else "clips" beside the program.
std::string defaultMediaFolder();

} // namespace qualify

#endif
