#ifndef SUPPORT_STDOUT_CAPTURE_H
#define SUPPORT_STDOUT_CAPTURE_H

#include <cstdio>
#include <cstdlib>
#include <gtest/gtest.h>
#include <string>
#include <unistd.h>

namespace support {

/// Takes what the process writes to standard output for a scope, one scope at a time. What
/// GoogleTest says of a failure meanwhile goes where it always goes.
class StdoutCapture {
public:
    StdoutCapture() {
        static const bool installed = installListeners();
        fflush(stdout);
        m_before = dup(STDOUT_FILENO);
        m_file = tmpfile();
        if (!installed || m_before < 0 || !m_file)
            abort();
        redirect(fileno(m_file));
        s_active = this;
    }
    ~StdoutCapture() {
        s_active = nullptr;
        redirect(m_before);
        close(m_before);
        fclose(m_file);
    }
    StdoutCapture(const StdoutCapture&) = delete;
    StdoutCapture& operator=(const StdoutCapture&) = delete;

    /// All that was written since the last call.
    std::string take() {
        fflush(stdout);
        std::string text;
        char buffer[4096];
        ssize_t got = 0;
        while ((got = pread(fileno(m_file), buffer, sizeof buffer, m_taken)) > 0) {
            text.append(buffer, static_cast<size_t>(got));
            m_taken += got;
        }
        return text;
    }

private:
    struct Pause : ::testing::EmptyTestEventListener {
        void OnTestPartResult(const ::testing::TestPartResult&) override {
            if (s_active)
                redirect(s_active->m_before);
        }
    };
    struct Resume : ::testing::EmptyTestEventListener {
        void OnTestPartResult(const ::testing::TestPartResult&) override {
            if (s_active)
                redirect(fileno(s_active->m_file));
        }
    };

    static void redirect(int descriptor) {
        fflush(stdout);
        if (dup2(descriptor, STDOUT_FILENO) < 0)
            abort();
    }

    /// Puts the default printer between the two.
    static bool installListeners() {
        auto& listeners = ::testing::UnitTest::GetInstance()->listeners();
        auto* const printer = listeners.Release(listeners.default_result_printer());
        listeners.Append(new Pause);
        listeners.Append(printer);
        listeners.Append(new Resume);
        return true;
    }

    static inline StdoutCapture* s_active = nullptr;

    int m_before = -1;
    FILE* m_file = nullptr;
    off_t m_taken = 0;
};

} // namespace support

#endif
