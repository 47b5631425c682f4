#pragma once

// What the voicemail node tests share: a session's arguments with sensible
// defaults, starting one on a fake line, and reading its commands and its
// one completion report.

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "fake_line.h"
#include "nodes/vm_node.h"

namespace kal::test {

// The arguments of a client's beginVMNodeForResource.
struct Session {
    bool ogm = true;  // a two-second greeting file
    bool icm = false;
    std::vector<std::string> choices = {};
    int maxLength = 60;
    int pause = 0;
    int special = 0;
    std::optional<std::string> dial = std::nullopt;
};

inline const std::string kToken = "vm-token";
// A cause of 0 reaches clients as an empty text.
inline const std::string kNoCause;

// The types of `commands`, as one string ("PPH").
inline std::string types_of(const std::vector<LineCommand>& commands) {
    std::string out;
    for (const auto& c : commands)
        out += c.type();
    return out;
}

class VMNodeTest : public ::testing::Test {
  protected:
    std::string ogmPath() const { return lines_.root().path() + "/ogm.raw"; }
    std::string icmPath() const { return lines_.root().path() + "/icm.raw"; }

    std::shared_ptr<VMNode> start(const Session& s, int line = 0) {
        if (s.ogm)
            lines_.audioFile("ogm.raw", 16000);
        auto node = VMNode::beginForResource(FakeLines::serial(line), kToken,
                                             s.ogm ? std::optional(ogmPath()) : std::nullopt,
                                             s.icm ? std::optional(icmPath()) : std::nullopt,
                                             s.choices, s.maxLength, s.pause, s.special, s.dial);
        return lines_.track(node);
    }

    // The next command must be the OGM's play; answers its token.
    std::string expectPlay(int line = 0) {
        auto cmd = lines_.nextCommand(line);
        if (!cmd || cmd->type() != 'P') {
            ADD_FAILURE() << "expected the OGM's play, got "
                          << (cmd ? std::string(1, cmd->type()) : "nothing");
            return "";
        }
        EXPECT_EQ(cmd->audio().path, ogmPath());
        EXPECT_EQ(cmd->audio().flags, VMNode::kPlayFlags);
        return cmd->audio().token;
    }
    // The next command must be the ICM's record; answers it.
    lm::lm_audio_request expectRecord(int line = 0) {
        auto cmd = lines_.nextCommand(line);
        if (!cmd || cmd->type() != 'R') {
            ADD_FAILURE() << "expected the ICM's record";
            return {};
        }
        EXPECT_EQ(cmd->audio().path, icmPath());
        return cmd->audio();
    }
    // The session ends: exactly one completion, under the session's token.
    Report onlyCompletion(int line = 0) {
        auto done = lines_.completions();
        if (done.size() != 1) {
            ADD_FAILURE() << done.size() << " completions, expected one";
            return {};
        }
        EXPECT_EQ(done[0].token, kToken);
        EXPECT_EQ(done[0].serial, FakeLines::serial(line));
        return done[0];
    }
    void expectCompletion(const std::string& code, const std::string& cause, int onHook,
                          int line = 0) {
        Report r = onlyCompletion(line);
        EXPECT_EQ(r.code, code);
        EXPECT_EQ(r.cause, cause);
        EXPECT_EQ(r.onHook, onHook);
    }
    // A failure report: a code, no cause, no hook flag.
    void expectFailure(const std::string& code, int line = 0) {
        Report r = onlyCompletion(line);
        EXPECT_EQ(r.code, code);
        EXPECT_EQ(r.onHook, -1);
    }

    FakeLines lines_{2};
};

}  // namespace kal::test
