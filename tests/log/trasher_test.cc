#include "log/trasher.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>

#include "base/paths.h"
#include "base/unique_fd.h"
#include "test_support.h"

using namespace kal;
using namespace kal::test;
using ::testing::UnorderedElementsAre;

namespace {

time_t change_time(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::stat(path.c_str(), &st), 0) << path;
    return st.st_ctime;
}

class TrasherTest : public ::testing::Test {
  protected:
    void SetUp() override { make_dirs(log_dir()); }
    std::string in_dir(const std::string& name) const { return log_dir() + "/" + name; }

    TempRoot root_;
};

TEST_F(TrasherTest, AgeLimitIsFiveDaysInclusive) {
    write_file(in_dir("KALDeviceMaster.1.2"), "rolled log");
    const time_t ctime = change_time(in_dir("KALDeviceMaster.1.2"));

    do_trashing(ctime + kTrashAgeSeconds - 1);
    EXPECT_TRUE(file_exists(in_dir("KALDeviceMaster.1.2")));

    do_trashing(ctime + kTrashAgeSeconds);
    EXPECT_FALSE(file_exists(in_dir("KALDeviceMaster.1.2")));
}

TEST_F(TrasherTest, KeepsHiddenFilesAndSpecialFilesAndEmptiesTheRest) {
    write_file(in_dir(".vomit"), "");
    make_dirs(in_dir("subdir"));
    ASSERT_EQ(mkfifo(in_dir("fifo").c_str(), 0600), 0);
    for (const char* name : {"a.log", "b.log", "c.log"})
        write_file(in_dir(name), "old");

    // A socket has the regular-file bit in its type, so it ages like a file.
    unique_fd sock(::socket(AF_UNIX, SOCK_STREAM, 0));
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    const std::string sock_path = in_dir("sock");
    ASSERT_LT(sock_path.size(), sizeof addr.sun_path);
    std::copy(sock_path.begin(), sock_path.end(), addr.sun_path);
    ASSERT_EQ(::bind(sock.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr), 0);

    do_trashing(time(nullptr) + 10 * kTrashAgeSeconds);
    EXPECT_THAT(list_dir(log_dir()), UnorderedElementsAre(".vomit", "subdir", "fifo"));
}

TEST_F(TrasherTest, MissingDirectoryIsReportedNotFatal) {
    rmdir(log_dir().c_str());
    do_trashing(time(nullptr));
    SUCCEED();
}

TEST_F(TrasherTest, BackupIsRolledToDatedNameAndLaterTrashed) {
    do_openbase_roll(12345);  // no backup: nothing happens
    EXPECT_TRUE(list_dir(log_dir()).empty());

    write_file(openbase_backup(), "database dump");
    do_openbase_roll(12345);
    const std::string rolled = openbase_backup() + ".12345." + std::to_string(getpid());
    EXPECT_THAT(list_dir(log_dir()),
                UnorderedElementsAre("QuessarCTI.bck.12345." + std::to_string(getpid())));
    EXPECT_EQ(read_file(rolled), "database dump");

    const time_t rolled_at = change_time(rolled);
    do_trashing(rolled_at + kTrashAgeSeconds - 1);
    EXPECT_TRUE(file_exists(rolled));
    do_trashing(rolled_at + kTrashAgeSeconds);
    EXPECT_FALSE(file_exists(rolled));
}

}  // namespace
