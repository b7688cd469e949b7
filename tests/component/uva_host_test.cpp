#include "display.h"
#include "host/capability_query.h"
#include "host/media_uri.h"
#include "options.h"
#include "terminal.h"
#include "timeline.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sys/wait.h>
#include <vector>

namespace {

namespace fs = std::filesystem;
using namespace uvahost;

auto parse(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "uva-host");
    return parseOptions(static_cast<int>(arguments.size()), arguments.data());
}

TEST(UvaHostOptions, RefusesWhatIsWrongWithAReason) {
    const std::vector<const char*> wrong[] = {
        {},
        {"--wat", "a"},
        {"--seek", "1,x", "a"},
        {"--seek", "1:75", "a"},
        {"--duration", "0", "a"},
        {"--duration", "nan", "a"},
        {"--window", "1,2,0x5", "a"},
        {"--window", "1,2,3x4;", "a"},
        {"--window", "99999999999,2,3x4", "a"},
        {"--snapshot-at", "5", "a"},
        {"--graph", "x.png", "a"},
        {"--can-play", "a/b c"},
        {"--can-play", "a"},
        {"--can-play", "/b"},
        {"--no-progress-timeout", "-1", "a"},
    };
    for (const auto& arguments : wrong) {
        const auto parsed = parse(arguments);
        EXPECT_FALSE(parsed.options) << (arguments.empty() ? "" : arguments.front());
        EXPECT_EQ(parsed.exitCode, 2);
        EXPECT_NE(parsed.text.find("--help"), std::string::npos);
    }
    EXPECT_EQ(parse({"--help"}).exitCode, 0);
}

TEST(UvaHostOptions, ReadsTimesAndWindows) {
    const auto parsed = parse({"--seek", "1:30,2.5", "--window", "-8,4,640x360", "a", "b"});
    ASSERT_TRUE(parsed.options) << parsed.text;
    EXPECT_EQ(parsed.options->seeks, (std::vector<double>{90, 2.5}));
    EXPECT_EQ(parsed.options->window->x, -8);
    EXPECT_EQ(parsed.options->window->height, 360);
    EXPECT_EQ(parsed.options->media, (std::vector<std::string>{"a", "b"}));

    const std::pair<const char*, double> times[] = {
        {"0", 0}, {"12.25", 12.25}, {"1:00:02.5", 3602.5}, {".5", 0.5}};
    for (const auto& [text, seconds] : times)
        EXPECT_EQ(parseTime(text), seconds) << text;
    for (const char* none : {"", "1:", ":1", "1.5:00", "1..5", ".", "1e3", "-1", "1:60", "inf",
                             "1:2:3:4", "99999999999999999999"})
        EXPECT_FALSE(parseTime(none)) << none;
}

TEST(UvaHostOptions, ReadsTheParametersOfAContentType) {
    const struct {
        std::vector<const char*> arguments;
        const char* said; // codecs, then the parameters in their order
    } rows[] = {
        {{"video/mp4"}, "||||||"},
        {{"video/mp4; CODECS=\"avc1.640028, mp4a.40.2\";Width = 1920 ;heighT=\"1080\""},
         "avc1.640028|mp4a.40.2|1920|1080|||||"},
        {{"a/b;framerate=30000/1001;bitrate=\" 5000 \";channels=6;CryptoBlockFormat=cbcs"},
         "||30000/1001|5000|6|cbcs|"},
        {{"a/b; cryptoblockformat=\"a;\\\"b\\\\\"; =1; width; width=\"; height=7"},
         "\"; height=7|||||a;\"b\\|"},
        {{"a/b; width=1; width=2; codecs=x; codecs=y; eotf=pq"}, "x|1||||||"},
        {{"a/b; width=1; channels=2", "--channels", "8"}, "1||||8||"},
    };
    for (auto row : rows) {
        row.arguments.insert(row.arguments.begin(), "--can-play");
        const auto parsed = parse(row.arguments);
        ASSERT_TRUE(parsed.options) << parsed.text;
        std::string said;
        for (const auto& codec : parsed.options->canPlay->codecs)
            said += codec + "|";
        for (const auto& parameter : host::contentParameters)
            said += (*parsed.options->canPlay).*parameter.member + "|";
        EXPECT_EQ(said, row.said) << row.arguments[1];
    }
}

TEST(UvaHostMedia, MakesUrisAndRefusesWhatCannotBeRead) {
    EXPECT_EQ(host::fileUri("/a b#c%d?\xc3\xa9\xff.mp4"), "file:///a%20b%23c%25d%3F%C3%A9%FF.mp4");
    EXPECT_EQ(host::toMediaUri("http://h/a%20b?c#d").uri, "http://h/a%20b?c#d");
    EXPECT_EQ(host::toMediaUri("a://h").uri, "a://h");
    EXPECT_EQ(host::toMediaUri("file:///%70roc/stat").error, "");
    EXPECT_EQ(host::toMediaUri("/dev/null").uri, "file:///dev/null");
    EXPECT_EQ(host::toMediaUri("file:///dev/n%75ll").uri, "file:///dev/n%75ll");
    for (const char* bad :
         {"", "/nowhere/x.mp4", "/", "http://h/a b", "file:///dev/%zz", "file:///dev/null%00",
          "file:///dev/nul%6", "file://relative", "file:///nowhere", "a:b", "://h"}) {
        const auto media = host::toMediaUri(bad);
        EXPECT_TRUE(media.uri.empty() && !media.error.empty()) << bad;
    }
    EXPECT_EQ(host::serverOf("https://me:pass@h:80/x@y:1"), "h");
    EXPECT_EQ(host::serverOf("rtsp://[::1]:80"), "[::1]");
    EXPECT_EQ(host::serverOf("file:///h") + host::serverOf("h"), "");
}

TEST(UvaHostTerminal, MakesKeysOfBytesCutAnywhere) {
    KeyDecoder decoder;
    std::vector<Key> keys;
    const std::string bytes = " \x1b[C\x1bOD\x1b[1;5C\x1b[A\x1bq";
    for (const char c : bytes)
        for (const Key key : decoder.decode(std::string(1, c)))
            keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<Key>{Key::Pause, Key::Forward, Key::Back, Key::Quit}));
}

TEST(UvaHostTerminal, FitsTheStatusIntoEveryWidth) {
    host::Status status;
    status.state = host::State::Playing;
    status.position = 3;
    status.duration = 6;
    status.width = 640;
    status.height = 360;
    EXPECT_EQ(statusLine(status, 48), "playing   0:03 / 0:06 [========        ] 640x360");
    EXPECT_EQ(statusLine(status, 30), "playing   0:03 / 0:06 640x360");
    EXPECT_EQ(statusLine(status, 24), "playing   0:03 / 0:06");
    EXPECT_EQ(statusLine(status, 5), "playi");
    status.position = 1e9; // beyond the end
    for (int width = 0; width < 200; ++width)
        EXPECT_LE(statusLine(status, width).size(), static_cast<std::size_t>(width));
}

/// Runs the program with the fake backend in an empty folder of its own.
class UvaHostRun : public testing::Test {
protected:
    void SetUp() override {
        std::string pattern = (fs::temp_directory_path() / "uva-host-test-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        m_folder = pattern;
        std::ofstream(m_folder / "clip \x1b.mp4") << "not looked at";
    }
    void TearDown() override { fs::remove_all(m_folder); }

    /// The exit code; what was printed is in m_output. A process that prints `stopAt` gets SIGINT.
    int run(const std::string& arguments, const std::string& clipSeconds = "0.3",
            const std::string& stopAt = "") {
        const std::string command =
            "cd " + m_folder.string() + " && echo $$ && TMPDIR=. FAKE_CLIP_SECONDS=" + clipSeconds +
            " UVA_BACKEND_LIBRARY=" FAKE_BACKEND " exec " + arguments + " 2>&1";
        FILE* pipe = popen(command.c_str(), "r");
        bool stopped = stopAt.empty();
        m_output.clear();
        for (int c = std::fgetc(pipe); c != EOF; c = std::fgetc(pipe)) {
            m_output += static_cast<char>(c);
            if (stopped || !says(stopAt))
                continue;
            stopped = true;
            kill(std::atoi(m_output.c_str()), SIGINT);
        }
        const int status = pclose(pipe);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    bool says(const std::string& text) const { return m_output.find(text) != std::string::npos; }

    fs::path m_folder;
    std::string m_output;
};

TEST_F(UvaHostRun, PlaysInTurnAndWritesATimeline) {
    EXPECT_EQ(run(UVA_HOST " *.mp4 *.mp4 --timeline t.json --snapshot s.png"), 0) << m_output;
    EXPECT_TRUE(says("event PlaybackFinished")) << m_output;
    EXPECT_TRUE(says("to the end")) << m_output;
    EXPECT_EQ(m_output.find('\x1b'), std::string::npos);
    EXPECT_GT(fs::file_size(m_folder / "s.png"), 8U);

    std::ifstream stream(m_folder / "t.json");
    const auto events = nlohmann::json::parse(stream);
    int releases = 0;
    double playing = 0;
    for (const auto& event : events) {
        const auto phase = event.at("ph").get<std::string>();
        EXPECT_TRUE(phase == "M" || event.at("ts").get<double>() > 0.0);
        if (phase == "X" && event.at("name") == "playing")
            playing += event.at("dur").get<double>();
        releases += event.at("name") == "UVA_ReleaseBackend" ? 1 : 0;
    }
    EXPECT_EQ(releases, 2);
    EXPECT_GT(playing, 0.0);
}

TEST_F(UvaHostRun, SaysWhyItFails) {
    const struct {
        const char* arguments;
        const char* text;
    } cases[] = {
        {UVA_HOST " nothing.mp4", "nothing.mp4: No such file"},
        {UVA_HOST " .", ".: is a directory"},
        {UVA_HOST " *.mp4 --backend ./none.so", "cannot load the backend library"},
        {UVA_HOST " *.mp4 --backend /none.so", "/none.so: cannot open shared object file"},
        {UVA_HOST " *.mp4 --backend " HALF_BACKEND, "does not export UVA_ReleaseBackend"},
        {UVA_HOST " *.mp4 --backend libm.so.6", "does not export UVA_RequestBackend"},
        {UVA_HOST " *.mp4 --timeline none/t.json", "/none/t.json': No such file"},
        {UVA_HOST " *.mp4 --timeline /dev/full", "'/dev/full': it is no file to which"},
        {UVA_HOST " *.mp4 --graph g.svg", "no pipeline graph"},
        {UVA_HOST " *.mp4 --snapshot s.png --snapshot-at 9", "did not reach 9.0 s"},
    };
    for (const auto& row : cases) {
        EXPECT_EQ(run(row.arguments), 1) << row.arguments << "\n" << m_output;
        EXPECT_TRUE(says(row.text)) << m_output;
    }
    EXPECT_EQ(run("env FAKE_CLIP_STALLS= " UVA_HOST " --quiet --no-progress-timeout 0.5 *.mp4"), 1);
    EXPECT_TRUE(says(" s: nothing moved for 0.5 s; is it intact")) << m_output;
    EXPECT_EQ(std::distance(fs::directory_iterator(m_folder), {}), 1); // nothing is left behind
}

TEST_F(UvaHostRun, EachRequestForSamplesIsAnsweredOnce) {
    const struct {
        const char* asks;
        int exitCode;
        const char* text;
    } cases[] = {
        {"once", 0, ", 1 of 1 requests answered"},
        {"twice", 1, ": of 2 requests for samples 1 came before the one in front was answered\n"},
        {"'for nobody'", 1, ": of 1 requests for samples 1 were never answered\n"},
    };
    for (const auto& row : cases) {
        const auto command = std::string("env FAKE_ASKS=") + row.asks +
                             " " UVA_HOST " --standalone --mse --no-progress-timeout 0.5 "
                             "--duration 0.8 " TEST_MEDIA_DIR "/frag.mp4";
        EXPECT_EQ(run(command, "60"), row.exitCode) << m_output;
        EXPECT_TRUE(says(row.text)) << m_output;
    }
}

TEST_F(UvaHostRun, StopsWhenAskedTo) {
    EXPECT_EQ(run(UVA_HOST " *.mp4 --duration 0.2", "60"), 0) << m_output;
    EXPECT_TRUE(says("as long as asked")) << m_output;
    EXPECT_EQ(run(UVA_HOST " *.mp4 *.mp4 --timeline t.json", "60", "state playing"), 130);
    EXPECT_TRUE(says("until interrupted")) << m_output;
    EXPECT_TRUE(fs::exists(m_folder / "t.json"));
}

TEST_F(UvaHostRun, SurvivesAReaderThatGoesAway) {
    EXPECT_EQ(run("bash -c 'set -o pipefail; " UVA_HOST " *.mp4 --timeline t.json | :'"), 0);
    EXPECT_TRUE(fs::exists(m_folder / "t.json"));
}

} // namespace
