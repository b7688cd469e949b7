#ifndef TESTS_FILES_FIXTURE_H
#define TESTS_FILES_FIXTURE_H

#include "support/private_tmp.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <set>
#include <sstream>
#include <string>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

/// Whether tests may mount in their folders, which no other process sees.
inline const bool hasOwnMounts = support::makePrivateTmp();

/// A folder that goes with the test, and what is mounted in it too.
class FilesTest : public ::testing::Test {
protected:
    FilesTest() {
        char path[] = "/tmp/filesXXXXXX";
        m_folder = mkdtemp(path);
    }
    ~FilesTest() override {
        std::error_code ignored; // what is still mounted stays
        std::filesystem::remove_all(m_folder, ignored);
    }

    std::string at(const std::string& name) const { return m_folder + "/" + name; }

    std::string put(const std::string& name, const std::string& content) const {
        std::ofstream(at(name), std::ios::binary) << content;
        return at(name);
    }
    static std::string contentOf(const std::string& path) {
        std::ostringstream content;
        content << std::ifstream(path, std::ios::binary).rdbuf();
        return content.str();
    }
    /// Below the test's folder.
    std::set<std::string> names(const std::string& folder = "") const {
        std::set<std::string> found;
        for (const auto& entry : std::filesystem::directory_iterator(at(folder)))
            found.insert(entry.path().filename());
        return found;
    }
    static struct stat look(const std::string& path) {
        struct stat info {};
        EXPECT_EQ(lstat(path.c_str(), &info), 0) << path;
        return info;
    }
    std::string makeFolder(const std::string& name) const {
        EXPECT_EQ(mkdir(at(name).c_str(), 0755), 0) << name;
        return at(name);
    }
    std::string m_folder;
};

#define NEEDS_MOUNTS()                                                                             \
    if (!hasOwnMounts)                                                                             \
    GTEST_SKIP() << "nothing may be mounted: allow user namespaces, or run it as root"

#endif
