#ifndef UVA_GST_IF_MEDIA_H
#define UVA_GST_IF_MEDIA_H

#include <string>
#include <vector>

typedef struct _GstElement GstElement;

/// What the link calls of the media framework, so that it is built without. Any thread calls, with
/// none of the link's locks held.
struct UvaGstIfMedia {
    enum class Category { Backend, BackendIf };
    /// The media framework's levels.
    enum Level : int { Error = 1, Warning = 2, Debug = 5 };
    struct Line {
        Category category;
        Level level;
        const char* file;
        const char* function;
        int line;
        std::string text;
    };
    struct States {
        int current = 0;
        int pending = 0;
    };

    /// Whether such a line would be written; asked before it is made.
    bool (*logs)(Category category, Level level);
    void (*log)(const Line& line);
    /// Waits for a state change in progress, without bound.
    States (*states)(GstElement* pipeline);
};

/// What is in use; it logs nothing until another is set. Thread-safe.
const UvaGstIfMedia& uvaGstIfMedia();

/// Sets what to use from now on; it must stay for the life of the process.
void setUvaGstIfMedia(const UvaGstIfMedia& media);

/// Formats and logs a line, cut at 511 characters.
void uvaGstIfLog(UvaGstIfMedia::Category category, UvaGstIfMedia::Level level, const char* file,
                 const char* function, int line, const char* format, ...)
    __attribute__((format(printf, 6, 7)));

/// Evaluates its arguments only if the line is written.
#define UVA_GST_IF_LOG(category, level, ...)                                                       \
    do {                                                                                           \
        if (uvaGstIfMedia().logs(UvaGstIfMedia::Category::category, UvaGstIfMedia::level))         \
            uvaGstIfLog(UvaGstIfMedia::Category::category, UvaGstIfMedia::level, __FILE__,         \
                        __func__, __LINE__, __VA_ARGS__);                                          \
    } while (0)

/// Lines that its thread logs while it lives are written at its end: it stands before a lock. One a
/// thread at a time.
class UvaGstIfLogLater {
public:
    UvaGstIfLogLater();
    ~UvaGstIfLogLater();
    UvaGstIfLogLater(const UvaGstIfLogLater&) = delete;
    UvaGstIfLogLater& operator=(const UvaGstIfLogLater&) = delete;

private:
    std::vector<UvaGstIfMedia::Line> m_lines;
};

#endif
