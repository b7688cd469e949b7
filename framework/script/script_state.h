#ifndef SCRIPT_STATE_H
#define SCRIPT_STATE_H

#include <string>
#include <string_view>

/// Something of which scripts may wait for a state, for as long as it lives: its text is the
/// subject, a blank and the state, such as "video decoder granted". Thread-safe.
class ScriptState {
public:
    explicit ScriptState(std::string subject);
    ~ScriptState();
    ScriptState(const ScriptState&) = delete;
    ScriptState& operator=(const ScriptState&) = delete;

    /// Tells scripts, if it is another than before.
    void set(std::string_view state);

private:
    friend class ScriptEvents;

    const std::string m_subject;
    std::string m_text; // guarded by the lock of the events; empty before the first set
};

#endif
