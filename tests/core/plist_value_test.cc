// Property lists to and from kal::Value, and the line preferences kept in
// the configuration file beside the daemon's own key.

#include "core/plist_value.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "core/qlxconfig.h"
#include "test_support.h"

using namespace kal;
using namespace kal::test;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

TEST(PlistValueTest, AFailedRenameLeavesNoTemporary) {
    TempRoot root;
    const std::string dir = root.path() + "/conf";
    // A directory in the way: the temporary is written, the rename fails.
    const std::string path = dir + "/prefs.plist";
    make_dirs(path + "/occupied");
    PlistPtr tree(plist_from_value(Value(ValueDict{{"a", Value(true)}})));

    errno = 0;
    EXPECT_FALSE(write_plist_file(path, tree.get()));
    EXPECT_EQ(errno, EISDIR);
    EXPECT_THAT(list_dir(dir), ElementsAre("prefs.plist"));
    EXPECT_FALSE(write_plist_file(root.path() + "/missing/prefs.plist", tree.get()));
    EXPECT_EQ(errno, ENOENT);
}

TEST(LinePreferencesTest, WritingReplacesTheWholeFileAtomically) {
    TempRoot root;
    const std::string path = root.path() + "/qlxconfig";
    write_file(path,
               "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
               "<plist version=\"1.0\"><dict>"
               "<key>KALVMSilenceDetection</key><integer>1</integer>"
               "<key>Installed</key><date>2006-10-06T15:57:48Z</date>"
               "<key>Line</key><dict><key>old</key><true/></dict>"
               "</dict></plist>\n",
               0600);

    const ValueDict written = {{"Line", Value(ValueDict{{"rings", Value(int32_t{4})}})},
                               {"Name", Value("Home")}};
    ASSERT_TRUE(write_line_preferences(path, written));
    EXPECT_EQ(read_line_preferences(path), written) << "the client's dictionary is the file";
    EXPECT_FALSE(read_silence_detection(path));
    struct stat st {};
    ASSERT_EQ(stat(path.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, 0644u);
    EXPECT_THAT(list_dir(root.path()), ::testing::Contains("qlxconfig"));
    for (const auto& name : list_dir(root.path()))
        EXPECT_FALSE(name.starts_with("qlxconfig.")) << "temporary left behind: " << name;
}

TEST(LinePreferencesTest, AMissingOrMalformedFileStartsAfresh) {
    TempRoot root;
    const std::string path = root.path() + "/qlxconfig";
    EXPECT_FALSE(read_line_preferences(path));

    for (const char* content : {"", "not a plist", "<plist version=\"1.0\"><array/></plist>"}) {
        write_file(path, content);
        EXPECT_FALSE(read_line_preferences(path)) << content;
        ASSERT_TRUE(write_line_preferences(path, {{"k", Value("v")}})) << content;
        EXPECT_EQ(read_line_preferences(path), (ValueDict{{"k", Value("v")}})) << content;
        unlink(path.c_str());
    }
}

}  // namespace
