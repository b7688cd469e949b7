// The file of a record: nothing is lost to threads, a kill or a full disk, and nothing hostile is
// believed.

#include "operations.h"
#include "record.h"
#include "record_file.h"
#include "recorder.h"
#include "recording_sample.h"
#include "uva/uva_event.h"
#include "value.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <new>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

using namespace record;

class RecordTest : public testing::Test {
protected:
    RecordTest() {
        char name[] = "/tmp/record-XXXXXX";
        folder = mkdtemp(name);
    }
    ~RecordTest() override { std::filesystem::remove_all(folder); }

    std::unique_ptr<RecordFile> create() {
        std::string error;
        auto file = RecordFile::create(path(), Payloads::Full, error);
        EXPECT_EQ(error, "");
        return file;
    }
    std::string path() const { return folder + "/it.uvarec"; }

    std::string folder;
};

EntryHeader headerOf(std::uint32_t thread, std::uint32_t number) {
    EntryHeader header{};
    header.thread = thread;
    header.number = number;
    return header;
}

/// A body that says who wrote it, of a size that differs from entry to entry.
std::string bodyOf(std::uint32_t thread, std::uint32_t number) {
    const std::size_t size = (thread * 7919 + number * 104729) % 6000;
    return std::string(size, static_cast<char>('a' + (thread + number) % 26));
}

void write(RecordFile& file, std::uint32_t thread, std::uint32_t number) {
    const auto body = bodyOf(thread, number);
    file.append(Kind::Data, headerOf(thread, number), body.data(), body.size());
}

/// The numbers that are there of each thread, whose bodies are held against what was written.
std::map<std::uint32_t, std::vector<std::uint32_t>> numbersIn(const Record& record) {
    std::map<std::uint32_t, std::vector<std::uint32_t>> numbers;
    for (const auto& entry : record.entries) {
        EXPECT_EQ(entry.body, bodyOf(entry.thread, entry.number));
        numbers[entry.thread].push_back(entry.number);
    }
    return numbers;
}

TEST_F(RecordTest, EveryEntryOfEveryThreadIsThereInItsOrder) {
    constexpr std::uint32_t threads = 4, each = 3000; // some 36 MB: several segments
    {
        const auto file = create();
        std::vector<std::thread> writers;
        for (std::uint32_t thread = 1; thread <= threads; ++thread)
            writers.emplace_back([&file, thread] {
                for (std::uint32_t number = 1; number <= each; ++number)
                    write(*file, thread, number);
            });
        for (auto& writer : writers)
            writer.join();
    }
    const auto record = readRecordFile(path());
    ASSERT_EQ(record.error, "");
    EXPECT_TRUE(record.torn.empty());
    std::vector<std::uint32_t> all(each);
    for (std::uint32_t i = 0; i < each; ++i)
        all[i] = i + 1;
    const auto numbers = numbersIn(record);
    ASSERT_EQ(numbers.size(), threads);
    for (const auto& [thread, found] : numbers)
        EXPECT_EQ(found, all) << thread;
    EXPECT_LT(std::filesystem::file_size(path()), threads * each * 3100U); // cut to what is in it
}

TEST_F(RecordTest, AKilledProcessHasLostNothing) {
    constexpr std::uint32_t threads = 2;
    auto* const written = static_cast<std::atomic<std::uint32_t>*>(
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const pid_t child = fork();
    if (child == 0) {
        const auto file = create();
        std::vector<std::thread> writers;
        for (std::uint32_t thread = 0; thread < threads; ++thread)
            writers.emplace_back([&, thread] {
                for (std::uint32_t number = 1;; ++number) {
                    write(*file, thread, number);
                    written[thread].store(number);
                }
            });
        pause();
    }
    while (written[0] < 2000 || written[1] < 2000)
        std::this_thread::yield();
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
    const auto record = readRecordFile(path());
    ASSERT_EQ(record.error, "");
    EXPECT_LE(record.torn.size(), threads);
    const auto numbers = numbersIn(record);
    for (std::uint32_t thread = 0; thread < threads; ++thread)
        EXPECT_GE(numbers.at(thread).size(), written[thread]) << thread;
    munmap(written, 4096);
}

TEST_F(RecordTest, AFileThatCannotGrowEndsWithTheReason) {
    const pid_t child = fork();
    if (child == 0) {
        const rlimit limit{2 * segmentSize, 2 * segmentSize};
        setrlimit(RLIMIT_FSIZE, &limit);
        std::freopen("/dev/null", "w", stderr);
        const auto file = create();
        for (std::uint32_t number = 1; number <= 4000; ++number)
            write(*file, 1, number); // some 12 MB
        file->close();
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0);
    const auto record = readRecordFile(path());
    ASSERT_EQ(record.error, "");
    ASSERT_FALSE(record.entries.empty());
    EXPECT_EQ(record.entries.back().kind, Kind::End);
    EXPECT_EQ(record.entries.back().number, static_cast<std::uint32_t>(EFBIG));
    for (std::size_t i = 0; i + 1 < record.entries.size(); ++i)
        ASSERT_EQ(record.entries[i].number, i + 1);
    EXPECT_GT(record.entries.size(), 2000U);
}

TEST_F(RecordTest, AFileThatCannotBeWrittenSaysWhy) {
    std::string error;
    EXPECT_EQ(RecordFile::create(folder + "/none/it", Payloads::Full, error), nullptr);
    EXPECT_NE(error.find("No such file"), std::string::npos) << error;
    const auto first = create();
    EXPECT_EQ(RecordFile::create(path(), Payloads::Full, error), nullptr);
    EXPECT_NE(error.find("another process records there"), std::string::npos) << error;
}

TEST_F(RecordTest, WhatAForkedChildDoesIsNotInIt) {
    {
        const auto file = create();
        write(*file, 1, 1);
        const pid_t child = fork();
        if (child == 0) {
            file->abandon();
            write(*file, 1, 9);
            _exit(0);
        }
        waitpid(child, nullptr, 0);
        write(*file, 1, 2);
    }
    EXPECT_EQ(numbersIn(readRecordFile(path())).at(1), (std::vector<std::uint32_t>{1, 2}));
}

class ThrowingSample final : public UVASample {
public:
    const std::uint8_t* payload() const override { throw std::bad_alloc(); }
    std::size_t payloadSize() const override { return 1; }
    double pts() const override { return 0; }
    double dts() const override { return 0; }
    double duration() const override { return 0; }
    const UVAStreamConfig* config() const override { return nullptr; }
    const std::vector<Subsample>& subsamples() const override { return m_none; }

private:
    const std::vector<Subsample> m_none = {};
};

TEST_F(RecordTest, ASampleThatThrowsReachesTheLibrary) {
    {
        Recorder recorder(create(), Payloads::Full);
        NeedMSEDataEvent event(1, 1);
        event.samples = new UVASample* [2] { new ThrowingSample, nullptr };
        recordSamples(recorder, 1, 7, event);
        EXPECT_THROW(event.samples[0]->payload(), std::bad_alloc);
    }
    std::vector<Kind> kinds;
    for (const auto& entry : readRecordFile(path()).entries)
        kinds.push_back(entry.kind);
    EXPECT_EQ(kinds, (std::vector<Kind>{Kind::Thread, Kind::Note, Kind::Sample, Kind::Freed}));
}

TEST(IdentitiesTest, AnotherEventAtTheSamePlaceIsNotTheOneBefore) {
    const NeedMSEDataEvent asked(1, 30), hosts(1, 1);
    const CancelDataRequestsAsyncEvent cancel(2);
    Identities identities;
    identities.remember(&asked, 7, lookOf(asked));
    EXPECT_EQ(identities.numberOf(&asked, lookOf(asked)), 7U);
    EXPECT_EQ(identities.numberOf(&asked, lookOf(hosts)), 0U);
    EXPECT_EQ(identities.numberOf(&asked, lookOf(cancel)), 0U);
    identities.forget(&asked);
    EXPECT_EQ(identities.numberOf(&asked, lookOf(asked)), 0U);
}

// ---- values

TEST(ValueTest, WhatIsWrittenIsRead) {
    Encoder out;
    out.null();
    out.boolean(true);
    for (const std::int64_t number : {std::int64_t{0}, std::int64_t{-1}, INT64_MAX, INT64_MIN})
        out.integer(number);
    out.real(-0.5);
    out.text("a \"b\"\n");
    out.text(static_cast<const char*>(nullptr));
    out.list(2);
    out.id(7);
    out.bytes("\x01\xff", 2);
    out.text(std::string(largestText + 1, 'x'));
    Values values;
    std::size_t offset = 0;
    const char* reason = "";
    ASSERT_TRUE(decode(out.data(), out.size(), values, offset, reason)) << reason;
    std::string text;
    for (const auto& value : values)
        text += describe(value) + "; ";
    EXPECT_EQ(text.substr(0, text.find('<')),
              "null; true; 0; -1; 9223372036854775807; -9223372036854775808; -0.5; "
              "\"a \\\"b\\\"\\x0a\"; null; [#7, 01ff]; ");
    EXPECT_NE(text.find("<65537 bytes, "), std::string::npos) << text;
}

TEST(ValueTest, ADigestTellsEveryByteApart) {
    std::string bytes(1000, 'a');
    std::map<std::uint64_t, std::size_t> seen{{digestOf(bytes.data(), bytes.size()), 0}};
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        bytes[i] = 'b';
        EXPECT_TRUE(seen.emplace(digestOf(bytes.data(), bytes.size()), i).second) << i;
        EXPECT_TRUE(seen.emplace(digestOf(bytes.data(), i), i).second) << i;
        bytes[i] = 'a';
    }
}

// ---- hostile files

/// A record with a call, an event and a sample of 4 bytes.
std::vector<char> goodBytes() {
    Record record;
    std::memcpy(record.header.magic, magic, sizeof magic);
    record.header.version = version;
    record.header.segmentSize = segmentSize;
    static const std::string bodies[] = {std::string("\x03\x02", 2), std::string("\x02", 1),
                                         "data"};
    const Kind kinds[] = {Kind::Call, Kind::Event, Kind::Data};
    for (std::size_t i = 0; i < std::size(kinds); ++i) {
        Entry entry;
        entry.kind = kinds[i];
        entry.body = bodies[i];
        record.entries.push_back(entry);
    }
    std::vector<const Entry*> all;
    for (const auto& entry : record.entries)
        all.push_back(&entry);
    return writeRecord(record, all);
}

constexpr std::size_t firstEntry = sizeof(FileHeader);
constexpr std::size_t firstBody = firstEntry + sizeof(EntryHeader);

struct Hostile {
    const char* what;
    void (*spoil)(std::vector<char>& bytes);
    const char* error;
};

class HostileTest : public testing::TestWithParam<Hostile> {};

TEST_P(HostileTest, IsRefusedWithPlaceAndReason) {
    auto bytes = goodBytes();
    ASSERT_EQ(readRecord(bytes).error, "");
    GetParam().spoil(bytes);
    EXPECT_EQ(readRecord(bytes).error, GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(
    Records, HostileTest,
    testing::Values(
        Hostile{"cut header", [](auto& b) { b.resize(63); }, "offset 0: too short to be a record"},
        Hostile{"other file", [](auto& b) { b[0] = 'X'; }, "offset 0: no record"},
        Hostile{"version", [](auto& b) { b[8] = 9; },
                "offset 8: a record of version 9; this program reads version 1"},
        Hostile{"segments", [](auto& b) { b[12] = 1; }, "offset 12: segments of an unknown size"},
        Hostile{"payloads", [](auto& b) { b[32] = 7; }, "offset 32: payloads of an unknown kind"},
        Hostile{"value kind", [](auto& b) { b[firstBody] = 99; },
                "offset 97: a value of a kind that there is not"},
        Hostile{"cut value", [](auto& b) { b[firstBody + 1] = '\x80'; },
                "offset 98: a length is cut off"},
        Hostile{"list", [](auto& b) { b[firstBody] = 7; },
                "offset 98: a list that is cut off or too deep"},
        Hostile{"operation", [](auto& b) { b[firstEntry + 28] = '\xff'; },
                "offset 64: a call of an operation that there is not"},
        Hostile{"noise",
                [](auto& b) { b.insert(b.begin() + firstEntry, std::size_t{5} << 20, 'x'); },
                "offset 64: no entry, and more than threads leave behind that are killed"}),
    [](const auto& row) {
        std::string name = row.param.what;
        name.erase(std::remove(name.begin(), name.end(), ' '), name.end());
        return name;
    });

TEST(TornTest, AnEntryWithoutItsMarkIsToldAndTheOthersAreRead) {
    auto bytes = goodBytes();
    const auto second = readRecord(bytes).entries[1].offset;
    std::memset(bytes.data() + second, 0, sizeof(std::uint64_t));
    const auto record = readRecord(bytes);
    EXPECT_EQ(record.error, "");
    ASSERT_EQ(record.entries.size(), 2U);
    EXPECT_EQ(record.entries[1].body, "data");
    ASSERT_EQ(record.torn.size(), 1U);
    EXPECT_EQ(record.torn[0].offset, second);
}

TEST(TornTest, TheLastEntryMayBeTornBeforeSegmentsThatWereReady) {
    auto bytes = goodBytes();
    const auto last = readRecord(bytes).entries[2].offset;
    std::memset(bytes.data() + last, 0, sizeof(std::uint64_t));
    const auto end = bytes.size();
    bytes.resize(std::size_t{3} * segmentSize);
    const auto record = readRecord(bytes);
    EXPECT_EQ(record.error, "");
    EXPECT_EQ(record.entries.size(), 2U);
    ASSERT_EQ(record.torn.size(), 1U);
    EXPECT_EQ(record.torn[0].offset, last);
    EXPECT_EQ(record.torn[0].size, end - last);
}

} // namespace
