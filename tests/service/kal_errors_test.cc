#include "service/kal_errors.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iterator>

using namespace kal;
using ::testing::HasSubstr;
using ::testing::StartsWith;

namespace {

constexpr const char kRunTogether[] =
    "Cache building failed to find source rowIncomplete user recordNOT AN ERROR INSERT ABOVE ME";
constexpr const char kCatchAll[] =
    "INTERNAL ERROR: No error text available. Please report this error.";

TEST(KalErrorsTest, TableKeepsEveryProgramsNumbers) {
    ASSERT_EQ(std::size(kal_errors), 38u);
    struct {
        int code;
        const char* message;
    } cases[] = {
        {0, "OK"},
        {4, "Distributed Objects connection failure during handshake"},
        {16, "Unauthenticated request"},
        {29, "Database failed to run SQL wakeup statement (returned 0 rows)"},
        {35, "Invalid software version"},
        {37, kRunTogether},
    };
    for (const auto& c : cases)
        EXPECT_STREQ(kal_errors[c.code], c.message) << c.code;
}

TEST(KalErrorsTest, ReasonNamesCodeMessageAndDetail) {
    const KALException plain = CreateKALException(std::nullopt, 16);
    EXPECT_EQ(plain.name(), "KALException");
    EXPECT_EQ(plain.reason(), "#16 Unauthenticated request");
    EXPECT_EQ(plain.kalErrorCode(), 16);
    EXPECT_EQ(CreateKALException("x", 16).reason(), "#16 Unauthenticated request: x");

    const KALException kept =
        CreateKALExceptionWithMutableUserinfo(std::nullopt, 35, {{"Extra", Value("kept")}});
    EXPECT_EQ(kept.userInfo().at("Extra").str(), "kept");
    EXPECT_EQ(kept.userInfo().at(KALErrorKey).as<int32_t>(), 35);

    try {
        RaiseKALException("why", 35);
        FAIL() << "RaiseKALException returned";
    } catch (const KALException& e) {
        EXPECT_EQ(e.reason(), "#35 Invalid software version: why");
        EXPECT_TRUE(e.isKALException());
    }
}

TEST(KalErrorsTest, AccessorsReadTheCodeWhateverTheExceptionIsCalled) {
    struct {
        Value code;
        int expected;
        std::optional<std::string> message;
    } cases[] = {
        {Value(int32_t{38}), 38, ""},  // one past the table: empty, not a failure
        {Value(int32_t{37}), 37, kRunTogether}, {Value(int64_t{16}), 16, "Unauthenticated request"},
        {Value(int32_t{-5}), -1, std::nullopt}, {Value(int32_t{39}), -1, std::nullopt},
    };
    for (const auto& c : cases) {
        const KALException e("NSGenericException", "other", {{KALErrorKey, c.code}});
        EXPECT_FALSE(e.isKALException());
        EXPECT_EQ(e.kalErrorCode(), c.expected) << describe(c.code);
        EXPECT_EQ(e.kalErrorString(), c.message) << describe(c.code);
    }
    const KALException bare("KALException", "no code");
    EXPECT_TRUE(bare.isKALException());
    EXPECT_EQ(bare.kalErrorCode(), -1);
    EXPECT_EQ(bare.kalErrorString(), std::nullopt);
}

TEST(KalErrorsTest, FourCodesHaveLongerTextsForUsers) {
    EXPECT_THAT(UserPresentableDescriptionForError(19),
                StartsWith("There is another entry in the phonebook with this name."));
    EXPECT_THAT(UserPresentableDescriptionForError(19), HasSubstr("saving.\n\nTip: Some users"));
    EXPECT_THAT(UserPresentableDescriptionForError(22),
                HasSubstr("not permitted.\n\nPlease change"));
    EXPECT_EQ(UserPresentableDescriptionForError(29),
              "Orvane failed to correctly communicate with the database.");
    EXPECT_THAT(
        UserPresentableDescriptionForError(30),
        HasSubstr("cannot be saved.  Apple's speech systems only work in English.  Please"));
    EXPECT_EQ(UserPresentableDescriptionForError(16), "Unauthenticated request");
    EXPECT_EQ(UserPresentableDescriptionForError(38), "");
}

TEST(KalErrorsTest, OnlySevenResponseCodesHaveTheirOwnText) {
    EXPECT_EQ(KALUserPresentableTextForResponse("KALResponseCodeOK"), "OK");
    EXPECT_EQ(KALUserPresentableTextForResponse("KALResponseCodeERRNoResource"),
              "No USB Telephone Adapter is currently connected.");
    EXPECT_EQ(KALUserPresentableTextForResponse("kal_ResponseCode_ERR_InvalidFile"),
              "Call Recording audio file missing.");
    for (const char* other : {"kal_ResponseCode_OK_NoAudio", "KALResponseCode_OK_FaxWait",
                              "KALResponseCode_Call_Busy", "", "nonsense"})
        EXPECT_EQ(KALUserPresentableTextForResponse(other), kCatchAll) << other;
}

TEST(KalErrorsTest, ReasonOfABusErrorGivesTheCodeBack) {
    EXPECT_EQ(KALExceptionFromReason("#35 Invalid software version: old").kalErrorCode(), 35);
    EXPECT_EQ(KALExceptionFromReason("#16").kalErrorCode(), 16);
    EXPECT_EQ(KALExceptionFromReason("#16x Unauthenticated").kalErrorCode(), -1);
    EXPECT_EQ(KALExceptionFromReason("Unauthenticated").kalErrorCode(), -1);
    EXPECT_EQ(KALExceptionFromReason("#16 Unauthenticated request").reason(),
              "#16 Unauthenticated request");
}

}  // namespace
