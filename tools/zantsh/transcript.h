#ifndef ZANTSH_TRANSCRIPT_H
#define ZANTSH_TRANSCRIPT_H

#include <string>
#include <string_view>

namespace zantsh {

/// What zantsh has the shell print before and behind commands: their output is what stands between.
class Marks {
public:
    Marks();

    const std::string begin;
    const std::string end;

private:
    explicit Marks(const std::string& name);
};

/// What a process prints, without what zantsh causes beside a command: marks, and traces of them.
/// Output between the marks of another zantsh is that one's, traces in it are everybody's.
class Transcript {
public:
    enum class Scope { commands, everything };

    /// `scope`: whether to show only what stands between marks expected.
    explicit Transcript(Scope scope) : m_scope(scope) {}

    /// From now on these marks are its own.
    void expect(const Marks& marks);
    /// The shell is about to skip a datagram of a wrong size.
    void expectSkip() { m_skipDue = true; }

    bool hasBegun() const { return m_begun; } ///< the expected command
    bool hasEnded() const { return m_ended; }

    /// Takes what has been printed and gives what of it to show. A line that is not complete waits
    /// for its rest.
    std::string take(std::string_view printed);
    /// Gives what waits.
    std::string flush();

private:
    enum class Whose { nobody, own, foreign };

    bool isShown(std::string_view line) const;
    bool isTraceOfProbe(std::string_view line);
    std::string takeLine(const std::string& line);
    void pass(std::string_view mark);

    const Scope m_scope;
    std::string m_begin, m_end;
    std::string m_line;
    Whose m_whose = Whose::nobody;
    bool m_ackDue = false;
    bool m_skipDue = false;
    bool m_begun = false;
    bool m_ended = false;
};

} // namespace zantsh

#endif
