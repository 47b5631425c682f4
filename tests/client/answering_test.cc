// What kalctl answers the daemon's call handling with: copies of audio
// files, the script menu from the command line, and a folder of messages
// walked stream by stream with the caller's dispositions done to its files.

#include "kalctl/answering.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <sstream>

#include "service/vocabulary.h"
#include "test_support.h"

using namespace kal;
using namespace kal::kalctl;
using namespace kal::test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::MatchesRegex;
using ::testing::Pair;
using ::testing::StartsWith;

namespace {

unsigned mode_of(const std::string& path) {
    struct stat st {};
    EXPECT_EQ(::lstat(path.c_str(), &st), 0) << path;
    return st.st_mode & 07777;
}

Invocation script_invocation(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> argv;
    for (std::string w; in >> w;)
        argv.push_back(w);
    return parse_command_line(argv);
}

TEST(AudioCopiesTest, EachCopyIsFreshReadableAndLeavesTheOriginalAlone) {
    TempRoot root;
    const std::string original = root.path() + "/weather.raw";
    write_file(original, std::string(12000, '\x80'), 0600);

    const AudioCopies copies;
    EXPECT_EQ(copies.dir(), root.path() + "/var/tmp/kalctl-" + std::to_string(geteuid()));
    // The daemon's own user deletes what it was given, but nobody lists it.
    EXPECT_EQ(mode_of(copies.dir()), 0733u);

    const std::string a = copies.copy(original);
    const std::string b = copies.copy(original);
    EXPECT_NE(a, b);
    EXPECT_THAT(a, MatchesRegex(copies.dir() + "/weather\\.[A-Za-z0-9]{6}\\.raw"));
    EXPECT_EQ(read_file(a), read_file(original));
    EXPECT_EQ(mode_of(a), 0644u);
    // The daemon deleting its copy does not touch the user's file.
    ASSERT_EQ(::unlink(a.c_str()), 0);
    EXPECT_TRUE(file_exists(original));
    EXPECT_EQ(mode_of(original), 0600u);

    EXPECT_THROW(copies.copy(root.path() + "/missing.raw"), Failure);
    EXPECT_THROW(copies.copy(root.path()), Failure);  // a folder
}

TEST(AudioCopiesTest, AFolderThatIsNotOursIsNeverUsed) {
    TempRoot root;
    const std::string elsewhere = root.path() + "/elsewhere";
    make_dirs(elsewhere);
    const std::string dir = AudioCopies::default_dir();
    ASSERT_EQ(::symlink(elsewhere.c_str(), dir.c_str()), 0);
    try {
        AudioCopies copies;
        FAIL() << "used a symlink";
    } catch (const Failure& e) {
        EXPECT_THAT(e.what(), HasSubstr("not a folder"));
    }
    ASSERT_EQ(::unlink(dir.c_str()), 0);
    write_file(dir, "");
    EXPECT_THROW(AudioCopies{}, Failure);
}

TEST(ScriptMenuTest, CodesAndTheirFilesFromEveryOptionTheFirstFileGivenWinning) {
    TempRoot root;
    const std::string dir = root.path() + "/answers";
    make_dirs(dir);
    for (const char* name : {"1.raw", "7.raw", "12.raw", "notes.txt", "x.raw", ".9.raw"})
        write_file(dir + "/" + name, "");

    const auto menu = parse_script_menu(
        script_invocation("script KL1001 --codes 1#,2,3 --responses /r/one.raw,,/r/three.raw "
                          "--answer 3=/a/three.raw --answer 4=/a/four.raw --answers " +
                          dir + " --prepick 7"));
    EXPECT_THAT(menu.codes, ElementsAre("1", "2", "3", "4", "12", "7"));
    EXPECT_THAT(menu.answers, ElementsAre(Pair("1", "/r/one.raw"), Pair("12", dir + "/12.raw"),
                                          Pair("3", "/a/three.raw"), Pair("4", "/a/four.raw"),
                                          Pair("7", dir + "/7.raw")));
    EXPECT_THAT(menu.silent_codes(), ElementsAre("2"));
    EXPECT_THAT(menu.audio_codes(), ElementsAre("1", "3", "4", "12", "7"));
    EXPECT_EQ(menu.prepick, "7");

    // Relative files are made absolute: the daemon has another working folder.
    const auto relative = parse_script_menu(script_invocation("script KL1 --answer 5=a.raw"));
    EXPECT_THAT(relative.answers,
                ElementsAre(Pair("5", std::filesystem::current_path().string() + "/a.raw")));
}

TEST(ScriptMenuTest, MistakesAreUsageErrors) {
    struct Case {
        const char* line;
        const char* says;
    } cases[] = {
        {"script KL1", "has no codes"},
        {"script KL1 --codes 1,,2", "empty script code"},
        {"script KL1 --codes 1#2", "may hold only"},
        {"script KL1 --codes 1x", "may hold only"},
        {"script KL1 --codes 1 --responses a.raw,b.raw", "2 files for 1 codes"},
        {"script KL1 --answer 1", "CODE=FILE"},
        {"script KL1 --answer 1=", "CODE=FILE"},
        {"script KL1 --codes 1,2 --prepick 3", "not on the menu"},
    };
    for (const auto& c : cases) {
        try {
            parse_script_menu(script_invocation(c.line));
            ADD_FAILURE() << c.line << " parsed";
        } catch (const UsageError& e) {
            EXPECT_EQ(e.command(), "script");
            EXPECT_THAT(e.what(), HasSubstr(c.says)) << c.line;
        }
    }
    EXPECT_THAT(parse_codes("script", "1#,*9,A0D"), ElementsAre("1", "*9", "A0D"));
}

class MessageFolderTest : public ::testing::Test {
  protected:
    void SetUp() override {
        make_dirs(dir_ + "/saved");
        make_dirs(dir_ + "/unrelated");
        write_file(dir_ + "/m2.raw", "two");
        write_file(dir_ + "/m1.raw", "one");
        write_file(dir_ + "/m3.raw", "three");
        write_file(dir_ + "/.partial.raw", "hidden");
        write_file(dir_ + "/saved/old.raw", "old");
    }
    std::vector<std::string> names(MessageFolder::Stream stream) const {
        std::vector<std::string> out;
        for (const auto& path : folder_.messages(stream))
            out.push_back(std::filesystem::path(path).filename().string());
        return out;
    }

    TempRoot root_;
    const std::string dir_ = root_.path() + "/messages";
    MessageFolder folder_{(make_dirs(dir_), dir_)};
};

TEST_F(MessageFolderTest, EachStreamIsItsFolderInNameOrderWithoutHiddenFilesOrFolders) {
    using S = MessageFolder::Stream;
    EXPECT_THAT(names(S::Unheard), ElementsAre("m1.raw", "m2.raw", "m3.raw"));
    EXPECT_THAT(names(S::Recent), ElementsAre("old.raw"));
    EXPECT_THAT(names(S::CallLog), IsEmpty());  // no calllog folder at all
    EXPECT_EQ(MessageFolder::stream_named(kal_VMCheck_Filter_Unheard), S::Unheard);
    EXPECT_EQ(MessageFolder::stream_named(kal_VMCheck_Filter_Recent), S::Recent);
    EXPECT_EQ(MessageFolder::stream_named(kal_VMCheck_Filter_CallLog), S::CallLog);
    EXPECT_EQ(MessageFolder::stream_named("KALFilterOther"), std::nullopt);
    EXPECT_THROW(MessageFolder(dir_ + "/m1.raw"), Failure);
}

TEST_F(MessageFolderTest, DispositionsAreDoneToTheMessagePresentedLast) {
    using S = MessageFolder::Stream;
    // The first request of a stream disposes of nothing.
    EXPECT_EQ(folder_.dispose(kal_VMCheck_Disposition_Skip), "");
    auto m = folder_.next(S::Unheard);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->path, dir_ + "/m1.raw");
    EXPECT_EQ(m->number, 1u);
    EXPECT_EQ(m->count, 3u);

    EXPECT_EQ(folder_.dispose(kal_VMCheck_Disposition_Skip), "m1.raw left as it was");
    // Disposed of once only.
    EXPECT_EQ(folder_.dispose(kal_VMCheck_Disposition_Delete), "");
    m = folder_.next(S::Unheard);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->path, dir_ + "/m2.raw");

    EXPECT_EQ(folder_.dispose(kal_VMCheck_Disposition_Delete), "m2.raw deleted");
    EXPECT_FALSE(file_exists(dir_ + "/m2.raw"));
    m = folder_.next(S::Unheard);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->number, 3u);

    EXPECT_EQ(folder_.dispose(kal_VMCheck_Disposition_Save),
              "m3.raw saved to " + dir_ + "/saved/m3.raw");
    EXPECT_EQ(read_file(dir_ + "/saved/m3.raw"), "three");
    EXPECT_FALSE(folder_.next(S::Unheard));

    EXPECT_THAT(names(S::Unheard), ElementsAre("m1.raw"));
    EXPECT_THAT(names(S::Recent), ElementsAre("m3.raw", "old.raw"));
}

TEST_F(MessageFolderTest, SavingKeepsASavedMessageOfTheSameNameAndOtherStreamsInPlace) {
    using S = MessageFolder::Stream;
    write_file(dir_ + "/old.raw", "new");
    std::optional<MessageFolder::Message> m;
    while ((m = folder_.next(S::Unheard)) && m->path != dir_ + "/old.raw") {
    }
    ASSERT_TRUE(m);
    EXPECT_EQ(folder_.dispose(kal_VMCheck_Disposition_Save),
              "old.raw saved to " + dir_ + "/saved/old-2.raw");
    EXPECT_EQ(read_file(dir_ + "/saved/old.raw"), "old");
    EXPECT_EQ(read_file(dir_ + "/saved/old-2.raw"), "new");

    // A saved message saved again stays where it is.
    folder_.restart();
    m = folder_.next(S::Recent);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->path, dir_ + "/saved/old-2.raw");
    EXPECT_EQ(folder_.dispose(kal_VMCheck_Disposition_Save), "old-2.raw kept");
    EXPECT_TRUE(file_exists(dir_ + "/saved/old-2.raw"));
}

TEST_F(MessageFolderTest, ARestartBeginsANewWalkAndVanishedFilesAreSkipped) {
    using S = MessageFolder::Stream;
    ASSERT_EQ(folder_.next(S::Unheard)->path, dir_ + "/m1.raw");
    folder_.restart();
    // Gone since: the caller never hears it, and the restart disposes of nothing.
    ASSERT_EQ(::unlink((dir_ + "/m1.raw").c_str()), 0);
    EXPECT_EQ(folder_.dispose(kal_VMCheck_Disposition_Delete), "");
    auto m = folder_.next(S::Unheard);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->path, dir_ + "/m2.raw");
    EXPECT_EQ(m->number, 1u);

    // Removed behind the walk's back.
    ASSERT_EQ(::unlink((dir_ + "/m3.raw").c_str()), 0);
    ASSERT_EQ(::unlink((dir_ + "/m2.raw").c_str()), 0);
    EXPECT_EQ(folder_.dispose(kal_VMCheck_Disposition_Delete), "m2.raw is gone already");
    EXPECT_FALSE(folder_.next(S::Unheard));
    // The walk is over: the next request starts the stream again.
    write_file(dir_ + "/m4.raw", "four");
    m = folder_.next(S::Unheard);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->path, dir_ + "/m4.raw");
}

}  // namespace
