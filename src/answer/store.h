#pragma once

// The message store of kal-answer: one SQLite database and one folder of WAV
// files, side by side in the service's state directory.
//
//     <dir>/messages.db      messages and the call log
//     <dir>/messages/*.wav   one file per message that is not deleted
//     <dir>/lost+found/      WAV files no row claimed (see repair())
//
// SQLite runs in WAL mode with full syncs, so a crash or power cut loses at
// most the transaction in progress and never corrupts what was committed. A
// message's file is written, synced and renamed into place inside the
// transaction that inserts its row; a crash between the two leaves a file
// no row names, which repair() moves aside at the next start. So every row
// that is not deleted names a file that exists, and every file in messages/
// is named by a row.
//
// Thread-aware, not thread-safe: one thread uses a store.

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace kal::answer {

// A store that cannot be opened, read or written; what() says which file and
// why.
class StoreError : public std::runtime_error {
  public:
    explicit StoreError(const std::string& message) : std::runtime_error(message) {}
};

enum class MessageState { New, Heard, Saved, Deleted };
const char* message_state_name(MessageState state);  // "new", "heard", "saved", "deleted"
std::optional<MessageState> message_state_named(const std::string& name);

struct Message {
    int64_t id = 0;
    int mailbox = 0;
    std::string line;  // the adapter's serial
    std::string callerNumber;
    std::string callerName;
    int64_t received = 0;  // seconds since the epoch
    int64_t durationMs = 0;
    MessageState state = MessageState::New;
    std::string file;  // name inside messages/, "" once deleted
};

// What happened to a call, as the call log keeps it.
enum class CallOutcome {
    Ringing,      // still going on (or the service stopped while it did)
    Unanswered,   // the caller hung up before we answered
    Answered,     // answered; no message (yet)
    Message,      // a message was left
    NoMessage,    // answered, the caller left nothing worth keeping
    Blocked,      // a number on the block list: hung up on
    Fax,          // handed to the fax machine
    RemoteCheck,  // the owner checked the messages
    Interrupted,  // the service stopped in the middle of the call
};
const char* call_outcome_name(CallOutcome outcome);
std::optional<CallOutcome> call_outcome_named(const std::string& name);

struct CallRecord {
    int64_t id = 0;
    std::string line;
    std::string callerNumber;
    std::string callerName;
    int64_t started = 0;  // seconds since the epoch
    CallOutcome outcome = CallOutcome::Ringing;
    int64_t messageId = 0;  // 0: none
};

struct RepairReport {
    int rowsWithoutFile = 0;   // marked deleted
    int filesWithoutRow = 0;   // moved to lost+found
    int unfinishedFiles = 0;   // half-written temporary files removed
    int callsInterrupted = 0;  // calls left ringing or answered by a crash
    bool clean() const {
        return rowsWithoutFile == 0 && filesWithoutRow == 0 && unfinishedFiles == 0 &&
               callsInterrupted == 0;
    }
};

struct SqliteCloser {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
struct StatementFinalizer {
    void operator()(sqlite3_stmt* s) const { sqlite3_finalize(s); }
};
using DatabasePtr = std::unique_ptr<sqlite3, SqliteCloser>;
using StatementPtr = std::unique_ptr<sqlite3_stmt, StatementFinalizer>;

class MessageStore {
  public:
    // How a connection opens the store: the first one checks and repairs
    // it; a second one in the same process (the messages page's) finds it
    // so, and must not repair again (that would close the calls under way
    // as interrupted).
    enum class Opening { kCheckAndRepair, kAlreadyRepaired };
    // Opens (creating when missing) the store in `dir`. Throws StoreError.
    explicit MessageStore(std::string dir, Opening opening = Opening::kCheckAndRepair);

    const std::string& dir() const { return dir_; }
    std::string messages_dir() const { return dir_ + "/messages"; }
    // The absolute path of a message's WAV file ("" when deleted).
    std::string path_of(const Message& m) const;
    // What the last repair (the one at opening) found.
    const RepairReport& last_repair() const { return repair_; }

    // Brings rows and files into agreement; see the file comment.
    RepairReport repair();

    // Adds a message whose audio is the finished WAV file `wav` (anywhere on
    // the same file system as the store; it is moved in). The fields id,
    // state and file of `m` are ignored. Returns the new message. Throws
    // StoreError; then nothing was added and `wav` is left where it was.
    Message add_message(const Message& m, const std::string& wav);

    std::optional<Message> message(int64_t id) const;
    // Messages not deleted, oldest first; all mailboxes when `mailbox` is 0.
    std::vector<Message> messages(int mailbox = 0) const;
    // New messages waiting (all mailboxes when `mailbox` is 0).
    int waiting(int mailbox = 0) const;
    // Marks a message heard, saved or new. Returns false for no such message
    // (or a deleted one).
    bool set_state(int64_t id, MessageState state);
    // Deletes the message's file and marks its row deleted. Returns false
    // for no such message.
    bool remove(int64_t id);

    // The call log.
    int64_t begin_call(const std::string& line, int64_t started);
    void update_call(int64_t id, const std::string& callerNumber, const std::string& callerName);
    void set_call_outcome(int64_t id, CallOutcome outcome, int64_t messageId = 0);
    // Newest first, at most `limit`.
    std::vector<CallRecord> calls(int limit = 100) const;

  private:
    StatementPtr prepare(const char* sql) const;
    void exec(const char* sql) const;
    [[noreturn]] void fail(const std::string& what) const;

    std::string dir_;
    DatabasePtr db_;
    RepairReport repair_;
};

}  // namespace kal::answer
