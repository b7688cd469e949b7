#ifndef UVA_GST_IF_MEDIA_H
#define UVA_GST_IF_MEDIA_H

typedef struct _GstElement GstElement;
typedef struct _GstMessage GstMessage;

/// What the link needs of the media framework, so that it is built without: reading application
/// messages, asking for a pipeline's state, and a log. Any thread calls it; the log is written with
/// the receiver's `stateMutex` held too, so it must not call back.
class UvaGstIfMedia {
public:
    enum class Category { Backend, BackendIf };
    /// The media framework's levels.
    enum Level : int { Error = 1, Warning = 2, Debug = 5 };

    struct States {
        int current = 0;
        int pending = 0;
    };
    struct Fraction {
        int numerator = 0;
        int denominator = 0;
    };

    virtual ~UvaGstIfMedia() = default;

    /// The name of the message's structure, null if it has none. Strings live as long as the
    /// message.
    virtual const char* name(GstMessage* message) = 0;
    /// The field of that type; 0, 0/0 or null if there is none.
    virtual int integer(GstMessage* message, const char* field) = 0;
    virtual Fraction fraction(GstMessage* message, const char* field) = 0;
    virtual const char* text(GstMessage* message, const char* field) = 0;

    /// Waits for a state change in progress, without bound. None of the link's locks is held.
    virtual States states(GstElement* pipeline) = 0;

    /// Whether such a line would be written; asked before it is made.
    virtual bool logs(Category category, Level level) = 0;
    virtual void log(Category category, Level level, const char* file, const char* function,
                     int line, const char* text) = 0;
};

/// What is in use; one that reads nothing and logs nothing, until another is set. Thread-safe.
UvaGstIfMedia& uvaGstIfMedia();

/// Sets what to use from now on; it must stay for the life of the process. Null takes it away,
/// which only those may who know that no thread uses it.
void setUvaGstIfMedia(UvaGstIfMedia* media);

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

#endif
