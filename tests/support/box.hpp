// What the tests of the libraries share: a fixture whose fixed directories are fresh and whose
// stand-ins are reset before each test, and helpers for files, the error slot and child processes.
#ifndef ZEVOBW_TESTS_BOX_HPP
#define ZEVOBW_TESTS_BOX_HPP

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/types.h>

#include "stand_ins.hpp"

// The users and groups that exist in the sandbox. A user's primary group has the user's number.
constexpr uint32_t kAlice = 2001;
constexpr uint32_t kBob = 2002;
constexpr uint32_t kCarol = 2003;
constexpr uint32_t kDave = 2004;   // in no further group
constexpr uint32_t kStaff = 3001;  // alice, bob
constexpr uint32_t kGuests = 3002; // alice, carol

// One directory and the plain files in it. Writing and reading fail the test when they cannot.
class Box {
public:
    explicit Box(std::string szDirectory) : path_(std::move(szDirectory)) {}

    void Make(); // empty, mode 0755
    void Wipe(); // gone, with everything in it
    const char *c_str() const { return path_.c_str(); }

    // The full name of a file, valid as long as the box.
    const char *Path(const std::string &name);
    void Write(const std::string &name, std::string_view text);
    std::string Read(const std::string &name) const;
    bool Has(const std::string &name) const;
    std::vector<std::string> Files() const; // everything in it, dot files included, sorted
    int FileCount() const { return static_cast<int>(Files().size()); }

private:
    std::string path_;
    std::vector<std::unique_ptr<std::string>> given_;
};

// Base of the fixtures: both fixed directories there and empty, clock real, log empty, mask 022.
class BoxTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    Box box{"/tmp/bandwidth"};          // status files
    Box etc{"/usr/zevo/etc/bandwidth"}; // rules and policies
};

// The thread's error slot holds this code, recorded by this source file.
void ExpectSlot(unsigned code, const char *szFile, const char *szCaller = __builtin_FILE(),
                int callerLine = __builtin_LINE());

// A child process that runs the body and then exits: with what the body returns, or with 1 when an
// expectation in it failed. It is ended and collected at the latest with the object.
class Child {
public:
    explicit Child(const std::function<int()> &body);
    ~Child();
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    pid_t pid() const { return pid_; }
    void Signal(int number) const;
    int Wait(); // the exit status, or 128 + the signal that ended it

private:
    pid_t pid_ = -1;
};

#endif // ZEVOBW_TESTS_BOX_HPP
