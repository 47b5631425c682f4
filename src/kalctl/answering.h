#pragma once

// What kalctl answers when the daemon's call handling asks it for audio: the
// files of a script menu and a folder of voicemail messages. No D-Bus here:
// only files, so all of it can be checked without a daemon.
//
// The daemon deletes every audio file a client hands it once it is done
// with it (a script's answer after playing it, each remote-check message
// when the next one comes, the main greeting when it is replaced). So
// kalctl never hands over a file of the user's: it hands over a fresh copy.

#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "kalctl/cli.h"

namespace kal::kalctl {

// Copies of audio files for the daemon to play and delete, in one folder
// that the daemon may read and delete in but nobody may list: mode 0733, so
// that the daemon's own user can remove what it was given, while the random
// names keep others from finding the files.
class AudioCopies {
  public:
    // $KAL_ROOT/var/tmp/kalctl-<uid>: the daemon may write only below
    // /var/tmp, and shares no private /tmp with us.
    static std::string default_dir();

    // Makes `dir` (one level) when missing. Throws Failure when it cannot,
    // or when it is not a folder of our own (a symlink, or someone else's).
    explicit AudioCopies(std::string dir = default_dir());

    // A copy of `source` under a fresh name that keeps its extension
    // ("greeting.raw" -> "<dir>/greeting.k3Jd9a.raw"), readable by all.
    // Throws Failure when `source` cannot be read or the copy not written.
    std::string copy(const std::string& source) const;

    const std::string& dir() const { return dir_; }

  private:
    std::string dir_;
};

// --- the script menu ------------------------------------------------------

// A script code as the caller types it, without the final # that ends it.
// Throws UsageError unless it is 1 to 32 of 0-9, *, A-D (a trailing # is
// dropped).
std::string parse_code(const std::string& command, const std::string& text);
// "1,2#,42" -> {"1", "2", "42"}.
std::vector<std::string> parse_codes(const std::string& command, const std::string& text);

struct ScriptMenu {
    // Every code, in the order given.
    std::vector<std::string> codes;
    // The audio file (absolute) answering each code that has one. A code
    // without one runs a script that answers nothing.
    std::map<std::string, std::string> answers;
    // A code run once at once, instead of asking the caller ("" for none).
    std::string prepick;

    // The codes whose scripts answer nothing, and those answered with
    // audio: the two lists the daemon takes.
    std::vector<std::string> silent_codes() const;
    std::vector<std::string> audio_codes() const;
};

// The menu from kalctl script's options: --codes (with --responses, their
// files by position), --answer CODE=FILE, and --answers DIR (each DIR/CODE.raw
// a code answered with that file). A code named twice keeps the first file
// given for it: --answer, then --responses, then the folder. Throws
// UsageError for a malformed code, an empty menu, more files than codes or
// a pre-picked code not on the menu; reads no file.
ScriptMenu parse_script_menu(const Invocation& inv);

// --- the folder of messages -------------------------------------------------

// A folder of messages as the remote check walks it. The streams the caller
// chooses at the main menu are folders:
//   unheard   the files in DIR itself
//   recent    DIR/saved
//   call log  DIR/calllog
// each walked in name order, skipping hidden files and anything that is not
// a regular file. What the caller says of a message is done to its file:
// save moves an unheard message to DIR/saved (a message of another stream
// stays where it is), delete removes the file, skip leaves it.
class MessageFolder {
  public:
    enum class Stream { Unheard, Recent, CallLog };
    // The stream a request names (KALFilter), if it is one of the three.
    static std::optional<Stream> stream_named(const std::string& filter);
    static const char* stream_title(Stream stream);  // "unheard", "saved", "call log"

    // Throws Failure when `dir` is not a folder.
    explicit MessageFolder(std::string dir);

    std::string stream_dir(Stream stream) const;
    // The messages of a stream now, in name order (absolute paths).
    std::vector<std::string> messages(Stream stream) const;

    struct Message {
        std::string path;  // the file in the folder (not a copy)
        size_t number;     // 1-based, in the walk
        size_t count;      // messages the stream had when the walk began
    };

    // The caller's disposition (KALVMCheckPresentMessageDisposition) of the
    // message presented last, done to its file. Returns what was done, for
    // people ("saved to <dir>/saved", "deleted", "left as it was"), or ""
    // when no message had been presented. Throws Failure when the file
    // cannot be moved or removed.
    std::string dispose(const std::string& disposition);

    // The next message of `stream`, now presented: the first of the stream
    // when no walk runs (at the start and after restart()), else the one
    // after the message presented last. nullopt when there is none; the walk
    // then ends.
    std::optional<Message> next(Stream stream);

    // The caller is back at the main menu: the next request begins a walk.
    void restart();

  private:
    std::string dir_;
    bool walking_ = false;
    Stream stream_ = Stream::Unheard;
    std::vector<std::string> walk_;  // the stream's messages when the walk began
    size_t at_ = 0;                  // walk_[at_ - 1] is presented; 0: none yet
    std::optional<std::string> presented_;
};

}  // namespace kal::kalctl
