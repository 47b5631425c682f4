#include "core/qlxconfig.h"

#include <gtest/gtest.h>

#include "test_support.h"

using namespace kal::test;

namespace {

std::string plist_with(const std::string& value_xml) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<!DOCTYPE plist PUBLIC \"-//Apple//DTD PLIST 1.0//EN\" "
           "\"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n"
           "<plist version=\"1.0\"><dict>" +
           value_xml + "</dict></plist>\n";
}

struct Case {
    const char* desc;
    std::string content;
    bool enabled;
};

TEST(QlxConfigTest, SilenceDetectionReadsTheKeyAsAnInteger) {
    TempRoot root;
    const std::string path = root.path() + "/qlxconfig";
    const Case cases[] = {
        {"integer 1", plist_with("<key>KALVMSilenceDetection</key><integer>1</integer>"), true},
        {"string 1", plist_with("<key>KALVMSilenceDetection</key><string>1</string>"), true},
        {"leading digits", plist_with("<key>KALVMSilenceDetection</key><string>7up</string>"),
         true},
        {"true", plist_with("<key>KALVMSilenceDetection</key><true/>"), true},
        {"integer 0", plist_with("<key>KALVMSilenceDetection</key><integer>0</integer>"), false},
        {"string 0", plist_with("<key>KALVMSilenceDetection</key><string>0</string>"), false},
        {"non-numeric", plist_with("<key>KALVMSilenceDetection</key><string>yes</string>"), false},
        {"absent key", plist_with("<key>Other</key><integer>1</integer>"), false},
        {"not a dictionary", "<plist version=\"1.0\"><array><integer>1</integer></array></plist>",
         false},
        {"garbage", "\x01\x02 not a property list", false},
        {"empty", "", false},
    };
    for (const auto& c : cases) {
        write_file(path, c.content);
        EXPECT_EQ(read_silence_detection(path), c.enabled) << c.desc;
    }
    EXPECT_FALSE(read_silence_detection(root.path() + "/missing")) << "missing file";
}

}  // namespace
