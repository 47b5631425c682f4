// kalctl's command line: what parses, what is a usage error, how typed
// values are read, and that every help text fits a terminal.

#include "kalctl/cli.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include "kalctl/commands.h"
#include "service/vocabulary.h"

using namespace kal;
using namespace kal::kalctl;
using ::testing::ElementsAre;
using ::testing::HasSubstr;

namespace {

std::vector<std::string> words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> out;
    for (std::string w; in >> w;)
        out.push_back(w);
    return out;
}

TEST(CommandLineTest, OptionsMayComeAnywhereAfterTheCommandInEitherSpelling) {
    const auto inv = parse_command_line(
        words("--app myapp --protocol BD1.0.7 dial --token=T1 any 555 --wait-for-pickup"));
    EXPECT_EQ(inv.global.application, "myapp");
    EXPECT_EQ(inv.global.protocolVersion, "BD1.0.7");
    EXPECT_EQ(inv.command, "dial");
    EXPECT_THAT(inv.args, ElementsAre("any", "555"));
    EXPECT_EQ(inv.value("--token"), "T1");
    EXPECT_TRUE(inv.has("--wait-for-pickup"));
    EXPECT_FALSE(inv.has("--wait"));

    const auto repeated = parse_command_line(words("monitor --name A --name B --count 2"));
    EXPECT_THAT(repeated.options.at("--name"), ElementsAre("A", "B"));

    // After "--" a leading dash is a value, not an option.
    const auto dashed = parse_command_line(words("prefs -- -odd=1"));
    EXPECT_THAT(dashed.args, ElementsAre("-odd=1"));
}

TEST(CommandLineTest, HelpAndVersionNeedNothingElse) {
    EXPECT_TRUE(parse_command_line(words("--help")).help);
    EXPECT_TRUE(parse_command_line(words("--version")).version);
    const auto dial = parse_command_line(words("dial --help"));
    EXPECT_TRUE(dial.help);
    EXPECT_EQ(dial.command, "dial");
    const auto help_dial = parse_command_line(words("help dial"));
    EXPECT_TRUE(help_dial.help);
    EXPECT_EQ(help_dial.command, "dial");
}

TEST(CommandLineTest, MistakesAreUsageErrorsNamingTheirCommand) {
    struct Case {
        const char* line;
        const char* command;
        const char* says;
    } cases[] = {
        {"", "", "no command"},
        {"frobnicate", "", "unknown command"},
        {"help frobnicate", "", "unknown command"},
        {"--nope lines", "", "unknown option"},
        {"--app", "", "needs a value"},
        {"lines extra", "lines", "too many arguments"},
        {"dial KL1001", "dial", "missing arguments"},
        {"dial KL1001 5 --token", "dial", "needs a value"},
        {"dial KL1001 5 --wait=yes", "dial", "takes no value"},
        {"hangup KL1001 --wait", "hangup", "unknown option '--wait'"},
    };
    for (const auto& c : cases) {
        try {
            parse_command_line(words(c.line));
            ADD_FAILURE() << "'" << c.line << "' parsed";
        } catch (const UsageError& e) {
            EXPECT_EQ(e.command(), c.command) << c.line;
            EXPECT_THAT(e.what(), HasSubstr(c.says)) << c.line;
        }
    }
}

TEST(CommandLineTest, TypedValuesAreCheckedBeforeAnythingIsSent) {
    // run() validates before it connects: with no bus at all, these end
    // as usage errors, not as connection failures.
    struct Case {
        const char* line;
        const char* says;
    } cases[] = {
        {"dial any 555", "needs --wait-for-pickup"},
        {"voicemail KL1001 --choices 1,2", "--greeting, --message or both"},
        {"voicemail KL1001 --message m.raw --choices 1,,2", "empty mailbox choice"},
        {"voicemail KL1001 --message m.raw --choices 1,x", "only the keys"},
        {"voicemail KL1001 --message m.raw --max-length -1", "--max-length must be"},
        {"record KL1001 r.raw --flags 1x", "--flags must be"},
        {"monitor --count 0", "--count must be"},
        {"call KL1001 555 --wait --timeout soon", "--timeout must be"},
        {"debug-level 9", "from 0 to 8"},
        {"script KL1001 --codes 1 --prepick 2", "not on the menu"},
        {"script KL1001 --codes 1 --idle soon", "--idle must be"},
        {"vmcheck KL1001 --greeting g.raw --messages m", "--inter-greeting is needed"},
        {"vmcheck KL1001 --greeting g --inter-greeting i --messages m --special -1",
         "--special must be"},
        {"prefs novalue", "expected key=value"},
        {"send Name =1", "expected key=value"},
    };
    for (const auto& c : cases) {
        Invocation inv = parse_command_line(words(c.line));
        inv.global.busAddress = "unix:path=/nonexistent/kalctl-test.sock";
        std::ostringstream out, err;
        EXPECT_EQ(run(inv, out, err), kExitUsage) << c.line << ": " << err.str();
        EXPECT_THAT(err.str(), HasSubstr(c.says)) << c.line;
        EXPECT_THAT(err.str(), HasSubstr("--help")) << c.line;
    }
}

TEST(CommandLineTest, AudioTheSessionCommandsCannotReadFailsBeforeAnythingIsSent) {
    for (const char* line :
         {"script KL1001 --answer 1=/nonexistent/weather.raw",
          "vmcheck KL1001 --greeting /nonexistent/g.raw --inter-greeting /nonexistent/i.raw "
          "--messages /",
          "vmcheck KL1001 --greeting g --inter-greeting i --messages /nonexistent"}) {
        Invocation inv = parse_command_line(words(line));
        inv.global.busAddress = "unix:path=/nonexistent/kalctl-test.sock";
        std::ostringstream out, err;
        EXPECT_EQ(run(inv, out, err), kExitFailed) << line << ": " << err.str();
        EXPECT_THAT(err.str(), HasSubstr("/nonexistent")) << line;
    }
}

TEST(CommandLineTest, ValuesReadAsAPersonMeansThem) {
    EXPECT_EQ(parse_value("true"), Value(true));
    EXPECT_EQ(parse_value("false"), Value(false));
    EXPECT_EQ(parse_value("-3"), Value(int32_t{-3}));
    EXPECT_EQ(parse_value("3000000000"), Value(int64_t{3000000000}));
    EXPECT_EQ(parse_value("2.5"), Value(2.5));
    EXPECT_EQ(parse_value("1e3"), Value(1000.0));
    EXPECT_EQ(parse_value("inf"), Value("inf"));
    EXPECT_EQ(parse_value("12abc"), Value("12abc"));
    EXPECT_EQ(parse_value(""), Value(""));
    EXPECT_EQ(parse_assignments("prefs", {"a=1", "b=x=y", "a=2"}),
              (ValueDict{{"a", Value(int32_t{2})}, {"b", Value("x=y")}}));

    EXPECT_THAT(parse_choices("voicemail", "1,22,*,#9"), ElementsAre("1", "22", "*", "#9"));
    EXPECT_EQ(parse_debug_level("debug-level", "devel"), 8);
    EXPECT_EQ(parse_debug_level("debug-level", "WARN"), 4);
    EXPECT_EQ(parse_debug_level("debug-level", "0"), 0);
}

TEST(CommandLineTest, EveryHelpTextFitsATerminalAndNamesEveryOption) {
    auto check = [](const std::string& text, const std::string& what) {
        std::istringstream in(text);
        for (std::string line; std::getline(in, line);)
            EXPECT_LE(line.size(), 79u) << what << ": " << line;
    };
    check(global_help(), "kalctl --help");
    for (const auto& desc : commands()) {
        const std::string help = command_help(desc);
        check(help, desc.name);
        EXPECT_THAT(global_help(), HasSubstr(std::string("  ") + desc.name + " "));
        for (const auto& option : desc.options)
            EXPECT_THAT(help, HasSubstr(option.name)) << desc.name;
    }
}

TEST(CommandLineTest, FailuresReadAsTheUserTextsOfTheErrorTable) {
    EXPECT_EQ(describe_response_failure(kal_ResponseCode_ERR_NoResource),
              "No USB Telephone Adapter is currently connected. (KALResponseCodeERRNoResource)");
    // The successful variants have no text of their own: the catch-all.
    EXPECT_THAT(describe_response_failure(kal_ResponseCode_OK_NoAudio),
                HasSubstr("INTERNAL ERROR: No error text available."));
    EXPECT_THAT(describe_bus_failure("org.freedesktop.DBus.Error.ServiceUnknown", "x"),
                HasSubstr("kaldevicemaster is not running"));
    EXPECT_THAT(describe_bus_failure("org.freedesktop.DBus.Error.AccessDenied", "x"),
                HasSubstr("group kal"));
}

}  // namespace
